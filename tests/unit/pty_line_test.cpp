#include "tools/modem/pty_line.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <termios.h>

#include <filesystem>

TEST(PtyLine, CarriesAnyByteAndSurvivesTheFarSide) {
    std::string dir = testing::TempDir() + "pty_line_test.XXXXXX";
    const std::string link = std::string(mkdtemp(dir.data())) + "/line";
    const std::string bytes("\x00\x03\x04\x0A\x0D\x11\x13\x1A\x7F\xFF", 10);
    PtyLine line(link);
    pollfd watched{line.fd(), POLLIN, 0};
    for (int round = 0; round < 2; ++round) {
        const UniqueFd far(open(link.c_str(), O_RDWR | O_NOCTTY));
        PtyLine::Input input;
        ASSERT_EQ(write(far.get(), bytes.data(), bytes.size()), 10);
        ASSERT_TRUE(poll(&watched, 1, 10000) == 1 && line.Read(&input));
        EXPECT_EQ(input.data, bytes);
        ASSERT_EQ(line.Write(bytes), bytes.size());
        std::string back(16, '\0');
        ASSERT_EQ(read(far.get(), back.data(), back.size()), 10);
        EXPECT_EQ(back.substr(0, 10), bytes);
        ASSERT_EQ(tcflush(far.get(), TCIFLUSH), 0);
        ASSERT_TRUE(poll(&watched, 1, 10000) == 1 && line.Read(&input));
        EXPECT_TRUE(input.flushed);
    }
    std::filesystem::remove_all(dir);
}
