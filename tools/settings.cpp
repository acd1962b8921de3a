#include "settings.h"

#include "runcls.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <numeric>
#include <vector>

namespace check {

const SettingFacts settings[setting_count] = {
    {"hostname", &CRunCls::hostname, false}, {"logurl", &CRunCls::logurl, false},  {"rdburl", &CRunCls::rdburl, false},
    {"rdbuser", &CRunCls::rdbuser, false},   {"rdbpswd", &CRunCls::rdbpswd, true}, {"dnsurl", &CRunCls::dnsurl, false},
    {"dnsuser", &CRunCls::dnsuser, false},   {"dnspswd", &CRunCls::dnspswd, true}, {"dnshttpsports", nullptr, false},
};

namespace {

bool isStored(const CRunCls& run, const SettingFacts& setting) {
    return setting.text != nullptr ? !(run.*setting.text).empty() : !run.dnshttpsports.empty();
}

char lower(char c) {
    return static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
}

//  Returns the smallest number of letters to change, remove or add in order to turn a into b (Levenshtein distance).
//  Ignores the case of letters.
std::size_t editDistance(std::string_view a, std::string_view b) {
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < a.size(); ++i) {
        std::size_t diagonal = row[0]++;
        for (std::size_t j = 0; j < b.size(); ++j) {
            const std::size_t changed = diagonal + (lower(a[i]) == lower(b[j]) ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({changed, row[j] + 1, row[j + 1] + 1});
        }
    }
    return row.back();
}

}  // namespace

//  The line feed prevents the reader from skipping a byte order mark at the start of the key.
std::size_t settingOf(const std::string& key, CIniProbe& probe) {
    CRunCls run;
    probe.load("\n" + key + "=1\n", run);
    const auto stored = [&run](const SettingFacts& setting) { return isStored(run, setting); };
    return static_cast<std::size_t>(std::find_if(std::begin(settings), std::end(settings), stored) -
                                    std::begin(settings));
}

std::size_t similarSetting(std::string_view key) {
    constexpr std::size_t max_distance = 2;
    constexpr std::size_t max_length = 20;
    if (key.size() > max_length)
        return no_setting;
    std::array<std::size_t, setting_count> distances{};
    std::transform(std::begin(settings), std::end(settings), distances.begin(),
                   [key](const SettingFacts& setting) { return editDistance(key, setting.name); });
    const auto* const nearest = std::min_element(distances.begin(), distances.end());
    return *nearest <= max_distance ? static_cast<std::size_t>(nearest - distances.begin()) : no_setting;
}

}  // namespace check
