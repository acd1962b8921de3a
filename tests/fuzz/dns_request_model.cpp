#include "dns_request_model.h"

#include <algorithm>
#include <arpa/inet.h>
#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;

template <class ELEMENT>
void addOnce(std::vector<ELEMENT>& list, const ELEMENT& element) {
    if (std::find(list.begin(), list.end(), element) == list.end())
        list.push_back(element);
}

bool addAddress(ModelRequest& model, const json& element, int family) {
    in6_addr binary{};
    if (!element.is_string())
        return false;
    const auto text = element.get<std::string>();
    addOnce(model.addresses, text);
    return std::strlen(text.c_str()) == text.size() && inet_pton(family, text.c_str(), &binary) == 1;
}

bool addPort(ModelRequest& model, const json& element) {
    if (!element.is_number_unsigned() || element < 1 || element > 65535)
        return false;
    addOnce(model.ports, element.get<std::uint16_t>());
    return true;
}

//  Returns true if item[key] does not exist, or if it is a list and `add` returns true for each element.
template <class ADD>
bool addAll(const json& item, const char* key, ADD add) {
    return !item.contains(key) || (item[key].is_array() && std::all_of(item[key].begin(), item[key].end(), add));
}

}  // namespace

ModelRequest modelRequest(const std::string& text, bool (*isName)(std::string_view)) {
    ModelRequest model;
    const json root = json::parse(text, nullptr, false);
    if (!root.is_object() || !root.contains("seqno") || !root["seqno"].is_number_integer())
        return model;
    model.seqno = root["seqno"].get<std::int64_t>();
    const json item = root.value("item", json());
    if (!root.contains("request") || root["request"] != "ws_dnsupdate" || !item.is_object() || !item.contains("name") ||
        !item["name"].is_string() || !isName(item["name"].get_ref<const std::string&>()))
        return model;
    model.name = item["name"];
    model.valid = addAll(item, "ipv4s", [&](const json& each) { return addAddress(model, each, AF_INET); }) &&
                  addAll(item, "ipv6s", [&](const json& each) { return addAddress(model, each, AF_INET6); }) &&
                  addAll(item, "httpsports", [&](const json& each) { return addPort(model, each); });
    return model;
}

bool modelIsReply(const std::string& text, const std::optional<std::int64_t>& seqno, int code) {
    const json reply = json::parse(text, nullptr, false);
    return reply.is_object() && reply.size() == 3 && reply["code"] == code && reply["message"].is_string() &&
           (seqno ? reply["seqno"] == *seqno : reply["seqno"].is_null());
}
