//  The examination of an ini file: which settings the service reads from it, what it does with them, and the warnings.
//
//  Every answer comes from the service's own code: its reader, its table of settings, its port list, its log and url
//  classes, and the function of the open client library that makes back ends. Nothing is written and no server is
//  contacted. Only the host name of a log address is resolved, as the service does at its start.
//
//  Threads: one examination at a time.
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

//  A file as the service sees it. Not copied: the service object is not.
struct Subject {
    CRunCls run;                                       // holds the nine settings as the service stores them
    std::vector<IniLine> lines;                        // the file
    std::array<std::size_t, setting_count> line = {};  // line of the value that counts; 0 without one
    std::string ports;                                 // the port list's text

    const std::string& text(Setting setting) const { return run.*settings[setting].text; }

    //  Returns the text as the client library receives it: up to the first zero byte.
    std::string given(Setting setting) const { return text(setting).substr(0, text(setting).find('\0')); }
};

//  Returns the file that is examined when none is named: folder's addrpubd.ini, or usual_place if only that exists.
//  Requires folder to end with "/".
std::string defaultPath(const std::string& folder, const std::string& usual_place);

//  Examines the file at path. Returns false when that is not possible, with the reason in problem; a file that cannot be
//  opened is a finding. So is one in UTF-16 that sets no host name: nothing else is reported of its content.
bool checkFile(const std::string& path, CReport& report, std::string& problem);

//  Examines bytes as the content of a file. Returns false when the system refuses the memory for it.
bool checkBytes(const std::string& bytes, CReport& report);

//  The parts of an examination. Each adds to report.
void checkMode(const Subject& subject, const struct stat& status, CReport& report);
void checkPasswordMode(const Subject& subject, Setting password, CReport& report);  // Requires "file:/PATH" there
void checkGrammar(const Subject& subject, CIniProbe& probe, CReport& report);
void checkHost(const Subject& subject, CReport& report);
void checkLog(const Subject& subject, CReport& report);
void checkServers(const Subject& subject, CReport& report);
void checkZone(const Subject& subject, CReport& report);
void checkPorts(const Subject& subject, CReport& report);

}  // namespace check

#endif
