#include "settings.h"

#include "service_platform.h"
#include "service_support.h"

#include <algorithm>
#include <cctype>

#include <gtest/gtest.h>

namespace {

using namespace check;

TEST(Settings, EachSettingIsFoundByItsNameInLowerAndUpperCase) {
    platform::reset();
    CIniProbe probe;
    for (std::size_t i = 0; i < setting_count; ++i) {
        std::string name = settings[i].name;
        EXPECT_EQ(settingOf(name, probe), i);
        std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::toupper(c); });
        EXPECT_EQ(settingOf(name, probe), i);
    }
    EXPECT_FALSE(probe.failed());
}

TEST(Settings, OtherKeysAreUnknown) {
    platform::reset();
    CIniProbe probe;
    for (const std::string& key : {std::string(), std::string("host"), std::string("hostnamee"),
                                   std::string("hostname\0", 9), std::string("\xEF\xBB\xBFhostname")})
        EXPECT_EQ(settingOf(key, probe), no_setting) << testing::PrintToString(key);
}

TEST(Settings, AMisspeltNameIsSimilarToItsSetting) {
    EXPECT_EQ(similarSetting("hostnmae"), hostname);
    EXPECT_EQ(similarSetting("Host_Name"), hostname);
    EXPECT_EQ(similarSetting("rdbpasswd"), rdbpswd);
    EXPECT_EQ(similarSetting("dnshttpports"), dnshttpsports);
    EXPECT_EQ(similarSetting("ttl"), no_setting);
    EXPECT_EQ(similarSetting(""), no_setting);
    EXPECT_EQ(similarSetting(std::string(100000, 'x')), no_setting);
}

}  // namespace
