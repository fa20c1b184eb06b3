#include "tools/pty_line.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <termios.h>

#include <filesystem>

#include "tools/tool_error.h"

namespace {

class PtyLineTest : public testing::Test {
  protected:
    void SetUp() override {
        std::string name = testing::TempDir() + "pty_line_test.XXXXXX";
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        mDir = name;
        mPath = mDir / "line";
    }
    void TearDown() override { std::filesystem::remove_all(mDir); }

    // The line's next input; waits for it.
    static PtyLine::Input ReadInput(PtyLine& line) {
        pollfd watched{line.fd(), POLLIN, 0};
        EXPECT_EQ(poll(&watched, 1, 10000), 1);
        PtyLine::Input input;
        EXPECT_TRUE(line.Read(&input));
        return input;
    }

    std::filesystem::path mDir;
    std::filesystem::path mPath;
};

TEST_F(PtyLineTest, CarriesAnyByteAndSurvivesTheFarSide) {
    PtyLine line(mPath);
    const std::string bytes("\x00\x03\x04\x0A\x0D\x11\x13\x1A\x7F\xFF", 10);
    for (int round = 0; round < 2; ++round) {
        const UniqueFd far(open(mPath.c_str(), O_RDWR | O_NOCTTY));
        ASSERT_NE(far.get(), -1);
        ASSERT_EQ(write(far.get(), bytes.data(), bytes.size()), 10);
        EXPECT_EQ(ReadInput(line).data, bytes);
        ASSERT_EQ(line.Write(bytes), bytes.size());
        char back[16];
        ASSERT_EQ(read(far.get(), back, sizeof back), 10);
        EXPECT_EQ(std::string(back, 10), bytes);
        ASSERT_EQ(tcflush(far.get(), TCIFLUSH), 0);
        EXPECT_TRUE(ReadInput(line).flushed);
    }
    PtyLine::Input none;
    EXPECT_FALSE(line.Read(&none));
}

TEST_F(PtyLineTest, TouchesOnlyItsOwnLink) {
    using namespace std::filesystem;
    create_symlink("/nowhere", mPath);
    {
        PtyLine line(mPath);
        EXPECT_NE(read_symlink(mPath), "/nowhere");
        EXPECT_THROW(PtyLine{mDir}, ToolError);
        {
            PtyLine other(mPath);  // takes the path over
            EXPECT_NE(status(mPath).type(), file_type::not_found);
        }
        EXPECT_FALSE(is_symlink(mPath));
        create_symlink("/elsewhere", mPath);
    }
    EXPECT_EQ(read_symlink(mPath), "/elsewhere");
    EXPECT_EQ(std::distance(directory_iterator(mDir), directory_iterator()), 1);
}

}  // namespace
