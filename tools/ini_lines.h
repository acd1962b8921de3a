//  An ini file line by line, as the service's reader takes it.
//
//      junk                           no setting; left: "junk"
//      hostname = h # note            key "junkhostname", its front of 4 bytes from line 1; value "h", behind "# note"
//
//  Only a line feed ends a line, as in an editor. At a line feed the reader is always between two keys, so all that goes
//  from one line to the next is the key as far as it was read.
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
    bool keeps_front = false;          // what earlier lines left to the next key stays in front of it
    bool sets = false;                 // a setting stands here: calls.back()
    std::size_t key_front = 0;         // bytes of its key that earlier lines left
    std::size_t key_from = 0;          // line that these begin in; 0 without one
    std::size_t setting = no_setting;  // which one; no_setting for an unknown key
    bool drops_text = false;           // text of this line stands in front of a comment or a header and sets nothing
    bool swallows_setting = false;     // a header that is not closed or holds "="
    bool glued = false;                // no blank stands between the value and what is behind it
    std::string behind;                // text of the line behind the value: begins with #, ; or a carriage return
};

//  Parses a file. The work is proportional to the file's length.
std::vector<IniLine> readLines(const std::string& bytes, CIniProbe& probe);

}  // namespace check

#endif
