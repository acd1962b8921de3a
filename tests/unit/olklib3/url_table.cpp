#include "url_table.h"

#include <cstdlib>
#include <fstream>

namespace {

char escaped(char c) {
    return c == 'n' ? '\n' : c == 'r' ? '\r' : c == 't' ? '\t' : c;
}

std::string unescape(const std::string& text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\') {
            out += text[i];
        } else if (text.at(++i) == 'x') {
            out += static_cast<char>(std::strtol(text.substr(i + 1, 2).c_str(), nullptr, 16));
            i += 2;
        } else {
            out += escaped(text[i]);
        }
    }
    return out;
}

}  // namespace

std::vector<url_row> read_url_table() {
    std::ifstream file(TEST_DATA "/url.tsv", std::ios::binary);
    std::vector<url_row> rows;
    for (std::string line; std::getline(file, line);) {
        if (line.empty() || line.starts_with("//"))
            continue;
        url_row& row = rows.emplace_back();
        std::size_t start = 0;
        for (std::string& field : row) {
            const std::size_t tab = line.find('\t', start);
            field = unescape(line.substr(start, tab - start));
            start = tab + 1;
        }
    }
    return rows;
}
