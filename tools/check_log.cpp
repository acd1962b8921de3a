//  Checks the log url. The service's own log classes open the log, but report no reason for a failure. So the parts of
//  the url are also checked separately.
#include "check.h"
#include "show.h"

#include "olk_alloctor"
#include "olk_prtlog.h"
#include "olk_udplog.h"
#include "olk_url.h"
#include "olk_words.h"

#include <cctype>
#include <cstdlib>

#include <strings.h>

namespace check {

namespace {

using Url = olk::net::url<olk::string>;

//  Returns whether the service would choose the UDP log for this url.
bool choosesUdp(const std::string& address) {
    char scheme[olk::word_size];
    std::size_t position = 0;
    return olk::read_word(address.data(), address.size(), position, ":/", scheme) == olk::word_end::separator &&
           strcasecmp(scheme, "udp") == 0;
}

void checkConsole(const std::string& address, std::size_t line, CReport& report) {
    olk::prtlog log;
    log.open(address.c_str());
    if (log.tostdout != 0) {
        report.words.emplace_back("the log goes to the console; -start shows its first lines only");
        return;
    }
    report.words.emplace_back("nothing is logged");
    if (!address.empty())
        report.warn(line, "logurl is neither \"stdout\" nor an address udp://SERVER:PORT/STREAM: nothing is logged");
}

//  Parses the url as the UDP log does, which ignores blanks.
bool parse(const std::string& address, Url& url) {
    std::string text;
    for (const char* c = address.c_str(); *c != '\0'; ++c)
        if (!olk::is_blank(*c))
            text += *c;
    return url.parse(text.data(), text.size());
}

std::string silence(const std::string& address) {
    Url url;
    if (!parse(address, url))
        return "its server is missing or its name cannot be resolved now";
    if (url.path.empty())
        return "it names no stream: udp://SERVER:PORT/STREAM";
    return "no socket can be opened";
}

void checkPort(const Url& url, std::size_t line, CReport& report) {
    const std::string host(url.host.data(), url.host.size());
    const std::size_t colon = host.find(':', host.front() == '[' ? host.find(']') : 0);
    if (colon == std::string::npos)
        return;
    const std::string port = host.substr(colon + 1);
    if (port != std::to_string(url.port) || url.port == 0)
        report.warn(line, "the port " + quoted(port) + " of logurl is read as " +
                              (url.port == 0 ? "none, which is 999" : std::to_string(url.port)));
}

//  The service ignores text after a number. It reads 0 and an unknown word as level 30, like "inf" and "msg".
void checkLevelWord(const std::string& word, std::size_t line, CReport& report) {
    char* end = nullptr;
    const long number = std::strtol(word.c_str(), &end, 10);
    const int level = olk::level_from_text(word.c_str());
    const bool number_in_front = end != word.c_str();
    const bool named_30 = strcasecmp(word.c_str(), "inf") == 0 || strcasecmp(word.c_str(), "msg") == 0;
    const bool taken_as_written = number_in_front ? *end == '\0' && number == level : level != olk::level_inf;
    if (!named_30 && !taken_as_written)
        report.warn(line, "the level " + quoted(word) + " of logurl is read as " + std::to_string(level));
    if (level < olk::level_err)
        report.warn(line, "no record has a level of " + std::to_string(level) + " or less: nothing is logged");
}

//  The UDP log uses only the first parameter of the query, and only if its key is "level".
void checkQuery(const Url& url, std::size_t line, CReport& report) {
    if (url.args.empty())
        return;
    char key[olk::word_size];
    char value[olk::word_size];
    std::size_t position = 0;
    const bool has_key =
        olk::read_word(url.args.data(), url.args.size(), position, "=", key) == olk::word_end::separator;
    const bool has_value =
        has_key && olk::read_word(url.args.data(), url.args.size(), position, "&", value) != olk::word_end::none;
    if (has_value && strcasecmp(key, "level") == 0)
        checkLevelWord(value, line, report);
    else
        report.warn(line, "the query of logurl does not begin with level=WORD: it is ignored");
}

void checkUdp(const std::string& address, std::size_t line, CReport& report) {
    olk::udplog log;
    if (log.open(address.c_str()) != 0) {
        report.words.emplace_back("nothing is logged");
        report.warn(line, "nothing is logged: " + silence(address));
        return;
    }
    char name[olk::level_name_size];
    report.words.push_back("the log goes to the log server, with records of level " +
                           std::string(olk::level_name(log.level, name)) + " and more severe ones");
    Url url;
    if (!parse(address, url))
        return;
    if (log.cabin.length != url.path.size())
        report.warn(line, "the stream name of logurl has more than 126 bytes: it is left empty");
    checkPort(url, line, report);
    checkQuery(url, line, report);
}

}  // namespace

void checkLog(const Subject& subject, CReport& report) {
    if (choosesUdp(subject.run.logurl))
        checkUdp(subject.run.logurl, subject.line[logurl], report);
    else
        checkConsole(subject.run.logurl, subject.line[logurl], report);
}

}  // namespace check
