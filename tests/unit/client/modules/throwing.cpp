//  A module whose functions throw exceptions, except the noexcept ones. The function `make` throws only for the path
//  "/make".
#include "module/guarded_backend.h"

#include <stdexcept>

namespace {

using namespace rdbopen;

class ThrowingBackend : public Backend, public TagBackend, public UpdateBackend {
public:
    TagBackend* tags() noexcept override { return this; }
    UpdateBackend* updates() noexcept override { return this; }
    std::string label() const override { throw std::runtime_error("label"); }
    Status open(const Waiter&) override { throw std::runtime_error("open"); }
    void close() noexcept override {}
    Status get(RdbTag&) override { throw std::bad_alloc(); }
    Status import(const RdbTag&) override { throw 1; }
    Status put(std::span<const RdbSnapshot>) override { throw std::runtime_error("put"); }
    Status refresh(const RdbSnapshot&, RdbTag&) override { throw std::runtime_error("refresh"); }
    Status apply(std::string_view, std::string&) override { throw std::runtime_error("apply"); }
    std::string refusal(std::string_view, int) override { throw std::runtime_error("refusal"); }
    std::optional<std::string> repetition(std::string_view, std::string_view) override {
        throw std::runtime_error("repetition");
    }
    Status probe() override { throw std::runtime_error("probe"); }
    Status checkValue(const RdbSnapshot&) override { throw std::runtime_error("checkValue"); }
    Status checkRequest(std::string_view) override { throw std::runtime_error("checkRequest"); }
};

BackendResult make(const Url& url, const Credentials&) {
    if (url.path == "/make")
        throw std::runtime_error("make");
    return BackendResult(std::make_unique<ThrowingBackend>());
}

void advise(const UrlUse& use, std::vector<Advice>& advice) {
    advice.push_back({Setting::url, std::string(use.urlName)});
    throw std::runtime_error("advise");
}

constexpr std::string_view schemes[] = {"throwing"};

}  // namespace

RDBAPI_MODULE(throwing);
constinit const rdbopen::Module rdbapix64_throwing = rdbopen::describeModule<make, advise>(schemes);
