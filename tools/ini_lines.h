//  An ini file line by line, as the service's reader takes it.
//
//      junk                           no setting; left: "junk"
//      hostname = h # note            key "junkhostname", its front of 4 bytes from line 1; value "h", behind "# note"
//
//  Only a line feed ends a line, as in an editor. At a line feed the reader is in no value, header or comment, so its
//  only state is the key as far as it was read.
#ifndef TOOLS_INI_LINES_H
#define TOOLS_INI_LINES_H

#include "settings.h"

#include <string>
#include <vector>

namespace check {

struct IniLine {
    std::size_t number = 0;            // from 1
    std::vector<IniCall> calls;        // what the reader's callback gets; at most the last one is a setting
    std::string left;                  // text of this line that the next key begins with
    bool keeps_front = false;          // the next key still begins with what earlier lines left
    bool sets = false;                 // the line has a setting: calls.back()
    std::size_t key_front = 0;         // bytes of its key that earlier lines left
    std::size_t key_from = 0;          // line that these begin in; 0 without one
    std::size_t setting = no_setting;  // which one; no_setting for an unknown key
    bool drops_text = false;           // text of this line before a comment or a header sets nothing
    bool swallows_setting = false;     // a header that is not closed or holds "="
    bool glued = false;                // no blank is between the value and what follows it
    std::string behind;                // text of the line after the value: begins with #, ; or a carriage return
};

//  Parses a file. The work is proportional to the file's length.
std::vector<IniLine> readLines(const std::string& bytes, CIniProbe& probe);

}  // namespace check

#endif
