//  The rows of tests/data/url.tsv: input, port, scheme, host, ipv4, ipv6, path, args, result.
#ifndef URL_TABLE_H
#define URL_TABLE_H

#include <array>
#include <string>
#include <vector>

using url_row = std::array<std::string, 9>;

std::vector<url_row> read_url_table();

#endif
