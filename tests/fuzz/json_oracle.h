//  A JSON parser that is independent of the writers, and the object that is written and parsed. If no parser is
//  installed, every text is accepted.
#ifndef FUZZ_JSON_ORACLE_H
#define FUZZ_JSON_ORACLE_H

#include <cstdint>
#include <string>
#include <vector>

struct json_object {
    std::string first;
    std::vector<std::string> list;
    std::string second;
    int64_t number = 0;

    bool operator==(const json_object&) const = default;
};

//  Returns whether `text` is a JSON text (RFC 8259) with exactly the members of `object`. An empty first or second
//  member is omitted. Requires that the texts of `object` are UTF-8.
bool oracle_reads(const std::string& text, const json_object& object);

#endif
