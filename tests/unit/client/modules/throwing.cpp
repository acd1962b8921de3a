//  A module whose functions throw, each where the url's path says.
#include "module/guarded_backend.h"

#include <stdexcept>

namespace {

using namespace rdbopen;

class ThrowingBackend : public Backend {
public:
    std::string label() const override { throw std::runtime_error("label"); }
    bool serves(Service) const noexcept override { return true; }
    Outcome open(const Waiter&) override { throw std::runtime_error("open"); }
    void close() noexcept override {}
    Outcome tagGet(RdbTag&) override { throw std::bad_alloc(); }
    Outcome tagImport(const RdbTag&) override { throw 1; }
    Outcome put(std::span<const RdbSnapshot>) override { throw std::runtime_error("put"); }
    Outcome message(std::string_view, std::string&) override { throw std::runtime_error("message"); }
    std::string refusal(std::string_view, int) override { throw std::runtime_error("refusal"); }
    Outcome probe() override { throw std::runtime_error("probe"); }
    Outcome checkValue(const RdbSnapshot&) override { throw std::runtime_error("checkValue"); }
    Outcome checkMessage(std::string_view) override { throw std::runtime_error("checkMessage"); }
};

int make(const Url& url, const Credentials&, std::unique_ptr<Backend>& backend, std::string&) {
    backend = std::make_unique<ThrowingBackend>();
    if (url.path == "/make")
        throw std::runtime_error("make");
    return errorNone;
}

void advise(const UrlUse& use, std::vector<Advice>& advice) {
    advice.push_back({Setting::url, std::string(use.urlName)});
    throw std::runtime_error("advise");
}

constexpr std::string_view schemes[] = {"throwing"};

}  // namespace

RDBAPI_MODULE(throwing);
constinit const rdbopen::Module rdbapix64_throwing = rdbopen::describeModule<make, advise>(schemes);
