#include "dryrun/backend.h"

#include "engine/report.h"

#include <set>

namespace rdbopen {

namespace {

class LogBackend : public Backend, public TagBackend, public UpdateBackend {
public:
    std::string label() const override { return "log:"; }
    TagBackend* tags() noexcept override { return this; }
    UpdateBackend* updates() noexcept override { return this; }
    Inspector* inspector() noexcept override { return &inspector_; }

    Status open(const Waiter&) override { return {}; }
    void close() noexcept override {}
    Status get(RdbTag& tag) override;
    Status import(const RdbTag& tag) override;
    Status put(std::span<const RdbSnapshot> records) override;
    Status apply(std::string_view text, std::string& reply) override;
    std::string refusal(std::string_view, int) override { return {}; }

private:
    void log(const std::string& text) const { reportInfo(label(), text); }

    std::set<std::string, std::less<>> tags_;
    RemarkInspector inspector_{"nothing is stored: log: is a dry run"};
};

//  A tag exists only after its import, so the service takes the same steps as with an empty server.
Status LogBackend::get(RdbTag& tag) {
    if (!tags_.contains(std::string_view(tag.name)))
        return {errorNoSuchTag, {}};
    tag.tagclass = RDB_TAG_CLASS_USABLE;
    tag.valuetype = RDB_VALUE_TYPE_TEXT;
    return {};
}

Status LogBackend::import(const RdbTag& tag) {
    log("would make the tag " + std::string(tag.name));
    tags_.emplace(tag.name);
    return {};
}

Status LogBackend::put(std::span<const RdbSnapshot> records) {
    for (const RdbSnapshot& record : records)
        log("would write " + std::string(record.name) + " = " + std::string(record.value, record.valuelen));
    return {};
}

Status LogBackend::apply(std::string_view text, std::string& reply) {
    log("would send " + std::string(text));
    reply = R"({"code":0,"message":"dry run"})";
    return {};
}

}  // namespace

BackendResult makeLogBackend(const Url& url, const Credentials&) {
    if (!url.authority.empty() || !url.path.empty() || !url.options.empty())
        return malformedUrl("text follows log:");
    return BackendResult(std::make_unique<LogBackend>());
}

}  // namespace rdbopen
