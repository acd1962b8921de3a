//  The model of the update request: it reads the tree of all values that nlohmann's JSON parser builds, while the code
//  stores only the values that it needs.
#ifndef FUZZ_DNS_REQUEST_MODEL_H
#define FUZZ_DNS_REQUEST_MODEL_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

struct ModelRequest {
    bool valid = false;
    std::optional<std::int64_t> seqno;  // set if the request has this number, even if the request is invalid
    std::string name;
    std::vector<std::string> addresses;
    std::vector<std::uint16_t> ports;
};

//  Requires: isName is the function that the code uses to check the name.
ModelRequest modelRequest(const std::string& text, bool (*isName)(std::string_view));

//  Returns whether `text` is a JSON reply with this sequence number and code.
bool modelIsReply(const std::string& text, const std::optional<std::int64_t>& seqno, int code);

#endif
