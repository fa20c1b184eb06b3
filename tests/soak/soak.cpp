// soak MINUTES [SEED]: one daemon and the steps of the end-to-end tests, each with capture off and
// on, in random order. After each, the daemon must hold what it held before.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "tests/e2e/steps.h"
#include "tools/common/tool_error.h"

namespace e2e {
namespace {

constexpr long kResidentMarginKb = 512;  // over the most in the first round

bool HasFailed() {
    return testing::UnitTest::GetInstance()->Failed();
}

size_t Entries(const std::string& directory) {
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(directory), {}));
}

class Soak {
  public:
    explicit Soak(unsigned seed) : mRandom(seed) {
        SetProperty("log.tag", "I");
        mWorld.StartDaemon();
        for (const auto& step : kSteps) {
            mRound.emplace_back(&step, false);
            mRound.emplace_back(&step, true);
        }
        mDescriptors = Entries(mWorld.Proc("fd"));
        mThreads = Entries(mWorld.Proc("task"));
    }

    // Rounds of all steps, until the time is over.
    void Run(Clock::time_point end) {
        for (size_t turn = 0; !HasFailed() && Clock::now() < end; ++turn) {
            if (turn == mRound.size()) mWarmResident = mResident;
            if (turn % mRound.size() == 0) std::shuffle(mRound.begin(), mRound.end(), mRandom);
            const auto& [step, captures] = mRound[turn % mRound.size()];
            printf("%zu: %s, capture %s ...", turn + 1, step->name, captures ? "on" : "off");
            fflush(stdout);
            const auto start = Clock::now();
            try {
                Play(*step, captures);
            } catch (const ToolError& error) {
                ADD_FAILURE() << error.what();
            }
            const std::chrono::duration<double> took = Clock::now() - start;
            printf(" %.1f s, %ld kB%s\n", took.count(), mResident, HasFailed() ? ", FAILED" : "");
        }
        printf("a tool is served again after at most %d ms; %zu descriptors, %zu threads, %ld kB\n",
               static_cast<int>(mWorld.slowest.count()), mDescriptors, mThreads, mResident);
    }

  private:
    void Play(const Step& step, bool captures) {
        for (const std::string& path : CaptureFiles())
            std::filesystem::remove(path);
        mWorld.MakeLine();
        mWorld.random.seed(mRandom());
        mWorld.Switch(captures);
        step.play(mWorld);
        mWorld.UntilListening();
        // The property is read through a descriptor, a hundred times a second.
        mWorld.Until("as many descriptors as before",
                     [this] { return Entries(mWorld.Proc("fd")) == mDescriptors; });
        EXPECT_EQ(mThreads, Entries(mWorld.Proc("task")));
        const std::string status = Contents(mWorld.Proc("status"));
        const long resident = std::stol(status.substr(status.find("VmRSS:") + 6));
        mResident = std::max(mResident, resident);
        EXPECT_LE(resident, mWarmResident + kResidentMarginKb) << "kB of memory";
    }

    Handset mWorld;
    std::minstd_rand mRandom;
    std::vector<std::pair<const Step*, bool>> mRound;
    size_t mDescriptors = 0;
    size_t mThreads = 0;
    long mResident = 0;            // kB, the most so far
    long mWarmResident = 1 << 20;  // kB, the most in the first round, once it is over
};

}  // namespace
}  // namespace e2e

int main(int argc, char** argv) {
    const double minutes = argc == 2 || argc == 3 ? strtod(argv[1], nullptr) : 0;
    if (minutes <= 0) {
        fprintf(stderr, "usage: soak MINUTES [SEED]\n");
        return 2;
    }
    const auto seed =
        static_cast<unsigned>(argc == 3 ? strtoul(argv[2], nullptr, 10) : time(nullptr));
    printf("soak: %s minutes, seed %u\n", argv[1], seed);
    e2e::Soak(seed).Run(e2e::Clock::now() + std::chrono::seconds(static_cast<int>(60 * minutes)));
    return testing::UnitTest::GetInstance()->Failed() ? 1 : 0;
}
