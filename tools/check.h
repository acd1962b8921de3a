//  Checks an ini file: which settings the service reads from it, what the service does with them, and which mistakes
//  are likely.
//
//  To find out what the service does, the check runs the service's own code: ini reader, table of settings, port list
//  parser, log and url classes, and the modules of the open client library that the service would load. The check's own
//  code searches for likely mistakes. The check changes no file and connects to no configured server. It resolves
//  the host name of a log url, as the service does when it starts.
//
//  Threads: one check at a time.
#ifndef TOOLS_CHECK_H
#define TOOLS_CHECK_H

#include "ini_lines.h"
#include "report.h"
#include "runcls.h"
#include "settings.h"

#include <array>
#include <string>
#include <vector>

#include <sys/stat.h>

namespace check {

//  A file, parsed as the service parses it. Not copyable, because the service object is not copyable.
struct Subject {
    CRunCls run;                 // contains the nine settings as the service stores them
    std::vector<IniLine> lines;  // the lines of the file
    std::array<std::size_t, setting_count> line =
        {};             // line of the value that is used, from 1; 0 if the setting is missing
    std::string ports;  // text of the port list

    const std::string& text(Setting setting) const { return run.*settings[setting].text; }

    //  Returns the text that the client library receives for a setting: the bytes before the first zero byte.
    std::string given(Setting setting) const { return text(setting).substr(0, text(setting).find('\0')); }
};

//  Returns the path of the file to check if the command line names no file: addrpubd.ini in folder, or usual_place if
//  only that file exists. Requires that folder ends with "/" or is empty.
std::string defaultPath(const std::string& folder, const std::string& usual_place);

//  Checks the file at path. Returns false and sets problem to the reason if the check is not possible. A file that
//  cannot be opened is reported as a finding. A file in UTF-16 in which no host name is found is reported as one
//  finding, which replaces all others except those about the mode of the file.
bool checkFile(const std::string& path, CReport& report, std::string& problem);

//  Checks bytes as the contents of a file. Returns false if the probe fails (ini_probe.h).
bool checkBytes(const std::string& bytes, CReport& report);

//  The parts of a check. Each part adds its findings to report; checkLog and checkServers also add sentences.
void checkMode(const Subject& subject, const struct stat& status, CReport& report);
//  Requires that the value of password starts with "file:/".
void checkPasswordMode(const Subject& subject, Setting password, CReport& report);
void checkGrammar(const Subject& subject, CIniProbe& probe, CReport& report);
void checkHost(const Subject& subject, CReport& report);
void checkLog(const Subject& subject, CReport& report);
void checkServers(const Subject& subject, CReport& report);
void checkPorts(const Subject& subject, CReport& report);

}  // namespace check

#endif
