//  The nine settings, and the members of the service object that store them.
#ifndef TOOLS_SETTINGS_H
#define TOOLS_SETTINGS_H

#include "ini_probe.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace check {

enum Setting : std::size_t { hostname, logurl, rdburl, rdbuser, rdbpswd, dnsurl, dnsuser, dnspswd, dnshttpsports };
inline constexpr std::size_t setting_count = 9;
inline constexpr std::size_t no_setting = setting_count;

struct SettingFacts {
    const char* name;
    std::string CRunCls::*text;  // null for the port list
    bool secret;                 // a password
};

//  In the order of the enumeration Setting.
extern const SettingFacts settings[setting_count];

//  Returns the setting in which the service stores the value of this key, or no_setting. Runs the service's own code.
std::size_t settingOf(const std::string& key, CIniProbe& probe);

//  Returns the setting with the most similar name, or no_setting if each name differs from key by more than two
//  letters.
std::size_t similarSetting(std::string_view key);

}  // namespace check

#endif
