//  The reader of state files: for any input the output of addrpubd-check --status is printable, each line of its
//  metrics is valid, and its exit status agrees with its text. Each text of the client library is read back unchanged,
//  up to the maximum length.
#include "engine/state_text.h"
#include "fuzz_input.h"
#include "status.h"

#include <algorithm>

namespace {

constexpr status::Time now{1'764'000'000'000, 5'000'000};

bool isPrintable(const std::string& text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c == '\n' || (c >= 0x20 && c < 0x7f); });
}

//  Returns whether a line of metrics is a comment or has the form NAME VALUE or NAME{LABELS} VALUE.
bool isMetric(const std::string& line) {
    if (line.starts_with("# "))
        return true;
    const std::size_t name = line.find_first_not_of("abcdefghijklmnopqrstuvwxyz_");
    const std::size_t value = line.rfind(' ') + 1;
    const bool labels = name < line.size() && line[name] == '{';
    return name != 0 && name != line.npos && (labels ? value >= 2 && line[value - 2] == '}' : name + 1 == value) &&
           value < line.size() && line.find_first_not_of("-.0123456789", value) == line.npos;
}

void checkOutput(const status::Reading& reading) {
    const std::string text = status::textOf(reading, "/run/addrpubd", now, false);
    require(isPrintable(text), "the text has only printable ASCII and line feeds");
    const std::string json = status::jsonOf(reading, "/run/addrpubd", now);
    require(isPrintable(json) && json.find('\n') == json.size() - 1, "the object is one line");
    std::string rest = status::metricsOf(reading, now);
    require(isPrintable(rest), "the metrics have only printable ASCII and line feeds");
    while (!rest.empty()) {
        const std::size_t end = rest.find('\n');
        require(end != rest.npos && isMetric(rest.substr(0, end)), "each line of the metrics is valid");
        rest.erase(0, end + 1);
    }
    const int code = status::exitStatus(reading, now);
    require((code == status::exit_not_running) == (reading.found != status::Found::running),
            "the exit status is right");
    require((code == status::exit_confirmed) == (text.starts_with("ok") && text.find("\nFAIL") == text.npos),
            "the exit status agrees with the text");
}

//  Requires that the library's texts are read back unchanged, or cut to the maximum length.
void checkText(const std::string& label) {
    rdbopen::StateText text;
    text.line(rdbopen::stateFormat).line("server").word("rdb").line("label").text(label).line("phase").word("opening");
    text.line("pending").word(label).text(label);
    std::string problem;
    const auto state = status::parseState(std::move(text.line("end")).take(), problem);
    const std::string expected = label.substr(0, rdbopen::maxStateBytes);
    require(state && state->servers[0].label == expected && state->servers[0].pending[0].value == expected,
            "a text is read back unchanged");
    require(state->servers[0].pending[0].name == expected, "a name is read back unchanged");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string bytes = fuzz_input(data, size).all();
    status::Reading reading;
    std::optional<status::State> state = status::parseState(bytes, reading.problem);
    require(state.has_value() == reading.problem.empty(), "a file is either read or has a problem");
    for (const auto found : {status::Found::running, status::Found::ended}) {
        reading.found = state ? found : status::Found::unknown;
        reading.state = state.value_or(status::State{});
        checkOutput(reading);
    }
    checkText(bytes);
    return 0;
}
