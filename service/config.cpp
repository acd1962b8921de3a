//  The keys of the ini file, and the members that store their values.
#include "inifile.h"
#include "olk_words.h"
#include "runcls.h"

#include <cstdlib>

#include <strings.h>

namespace {

struct StringKey {
    const char* name;
    std::string CRunCls::*field;
};

const StringKey string_keys[] = {
    {"hostname", &CRunCls::hostname}, {"logurl", &CRunCls::logurl},   {"rdburl", &CRunCls::rdburl},
    {"rdbuser", &CRunCls::rdbuser},   {"rdbpswd", &CRunCls::rdbpswd}, {"dnsurl", &CRunCls::dnsurl},
    {"dnsuser", &CRunCls::dnsuser},   {"dnspswd", &CRunCls::dnspswd},
};

bool isKey(const std::string& key, const char* name) {
    return key.size() == std::char_traits<char>::length(name) && strcasecmp(key.c_str(), name) == 0;
}

//  Reads one item of a port list, starting at position, up to a comma or the end. Trailing blanks remain in the item.
//  Returns false if the item is longer than 38 characters.
bool readItem(const std::string& text, std::size_t& position, std::string& item) {
    constexpr std::size_t max_length = 38;
    item.clear();
    while (position < text.size()) {
        const char c = text[position++];
        if (c == ',')
            return true;
        if (c == '\r' || c == '\n' || (item.empty() && olk::is_blank(c)))
            continue;
        if (item.size() == max_length)
            return false;
        item += c;
    }
    return true;
}

}  // namespace

void parsePortList(const std::string& text, olk::vector_<std::uint16_t>& ports) {
    ports.clear();
    std::size_t position = 0;
    std::string item;
    while (position < text.size() && readItem(text, position, item)) {
        //  strtol returns 0 for an empty item, and stops at a trailing blank.
        const auto port = static_cast<std::uint16_t>(std::strtol(item.c_str(), nullptr, 10));
        if (port != 0)
            ports.push_back(port);
    }
}

bool CRunCls::loadConfig(const char* path) {
    return read_ini_file(path, [this](const std::string&, const std::string& key, const std::string& value) {
        storeSetting(key, value);
        return false;
    });
}

//  A section header has an empty key, so it matches none of the nine keys.
void CRunCls::storeSetting(const std::string& key, const std::string& value) {
    for (const StringKey& known : string_keys)
        if (isKey(key, known.name))
            this->*known.field = value;
    if (isKey(key, "dnshttpsports"))
        parsePortList(value, dnshttpsports);
}
