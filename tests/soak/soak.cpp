// soak MINUTES [SEED], as scripts/soak checks them: one daemon and the steps of the end-to-end
// tests, each with capture off and on, in random order. After each, the daemon must hold what it
// held before.
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <filesystem>

#include "tests/e2e/steps.h"
#include "tools/common/tool_error.h"

using namespace e2e;

namespace {

constexpr long kResidentMarginKb = 512;  // over the most in the first round

bool HasFailed() {
    return testing::UnitTest::GetInstance()->Failed();
}

class Soak : public Handset {
  public:
    explicit Soak(unsigned seed) : mShuffle(seed) {
        SetProperty("log.tag", "I");
        StartDaemon();
        mDescriptors = Entries("fd");
        mThreads = Entries("task");
    }
    // Plays step n of a new order each round.
    void Play(size_t n) {
        for (size_t i = 0; mRound.size() < 2 * kSteps.size(); ++i)
            mRound.emplace_back(&kSteps[i / 2], i % 2 == 0);
        if (n == mRound.size()) mWarmResident = mResident;
        if (n % mRound.size() == 0) std::shuffle(mRound.begin(), mRound.end(), mShuffle);
        const auto& [step, isOn] = mRound[n % mRound.size()];
        printf("%zu: %s, capture %s ...", n + 1, step->name, isOn ? "on" : "off");
        fflush(stdout);
        const auto start = Clock::now();
        for (const std::string& path : CaptureFiles())
            std::filesystem::remove(path);
        MakeLine();
        random.seed(mShuffle());
        Switch(isOn);
        step->play(*this);
        UntilListening();
        // The property is read through a descriptor, a hundred times a second.
        Until("as many descriptors as before", [this] { return Entries("fd") == mDescriptors; });
        EXPECT_EQ(mThreads, Entries("task"));
        const std::string status = Contents(Proc("status"));
        const long resident = std::stol(status.substr(status.find("VmRSS:") + 6));
        mResident = std::max(mResident, resident);
        EXPECT_LE(resident, mWarmResident + kResidentMarginKb) << "kB of memory";
        const std::chrono::duration<double> took = Clock::now() - start;
        printf(" %.1f s, %ld kB\n", took.count(), resident);
    }

  private:
    size_t Entries(const char* directory) const {
        const std::filesystem::directory_iterator entries(Proc(directory));
        return static_cast<size_t>(std::distance(entries, {}));
    }

    std::minstd_rand mShuffle;
    std::vector<std::pair<const Step*, bool>> mRound;
    size_t mDescriptors = 0;
    size_t mThreads = 0;
    long mResident = 0;            // kB, the most so far
    long mWarmResident = 1 << 20;  // kB, the most in the first round, once it is over
};

}  // namespace

int main(int argc, char** argv) {
    const double minutes = std::stod(argv[1]);
    const auto seed = static_cast<unsigned>(argc > 2 ? std::stoul(argv[2]) : time(nullptr));
    printf("soak: %s minutes, seed %u\n", argv[1], seed);
    Soak soak(seed);
    const auto end = Clock::now() + std::chrono::seconds(static_cast<int>(60 * minutes));
    try {
        for (size_t n = 0; !HasFailed() && Clock::now() < end; ++n)
            soak.Play(n);
    } catch (const ToolError& error) {
        ADD_FAILURE() << error.what();
    }
    printf("a tool is served again after at most %d ms\n", static_cast<int>(soak.slowest.count()));
    return HasFailed() ? 1 : 0;
}
