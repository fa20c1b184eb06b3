#include "tests/e2e/steps.h"

namespace e2e {
namespace {

struct Steps : HandsetTest, testing::WithParamInterface<Step> {};

TEST_P(Steps, AreSurvived) {
    const bool isRoot = Contents("/proc/self/uid_map").find(" 0          0 ") != std::string::npos;
    const bool isAboutLink = std::string(GetParam().name).find("Link") != std::string::npos;
    if (isAboutLink && !isRoot)
        GTEST_SKIP() << "the daemon believes nobody but root about the link";
    if (isVirtual) SetProperty("log.tag", "I");  // traces take most of its time
    Switch(GetParam().captures);
    StartDaemon();
    GetParam().play(*this);
}

INSTANTIATE_TEST_SUITE_P(All, Steps, testing::ValuesIn(kSteps),
                         [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace e2e
