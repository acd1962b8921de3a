//  The lines of an ini file, as the service's reader interprets them.
//
//      junk                           no setting; IniLine::left is "junk"
//      hostname = h # note            key "junkhostname", with 4 bytes of line 1; value "h"; IniLine::rest is "# note"
//
//  Only a line feed ends a line, as in an editor. At a line feed the reader is not inside a value, header or comment.
//  So the only state that matters for the next line is the unfinished key. The reader also keeps the name of the
//  section, but no setting depends on it.
#ifndef TOOLS_INI_LINES_H
#define TOOLS_INI_LINES_H

#include "settings.h"

#include <string>
#include <vector>

namespace check {

struct IniLine {
    std::size_t number = 0;            // line number, from 1
    std::vector<IniCall> calls;        // calls of the reader's callback; only the last can be a setting
    std::string left;                  // text of this line with which the next key starts
    bool keeps_front = false;          // the next key also contains text of earlier lines
    bool sets = false;                 // an "=" of the line ends a key; calls.back() has key and value
    std::size_t key_front = 0;         // number of bytes of the setting's key that are from earlier lines
    std::size_t key_from = 0;          // line in which these bytes start; 0 if there are none
    std::size_t setting = no_setting;  // index of the setting; no_setting for an unknown key
    bool drops_text = false;           // text of this line is ignored, because a comment or header follows it
    bool swallows_setting = false;     // the line sets nothing, and a header in it contains "="
    bool glued = false;                // no blank separates the value from the text after it
    std::string rest;                  // text after the value; empty, or starts with "#", ";" or a carriage return
};

//  Parses a file in time proportional to its length.
std::vector<IniLine> readLines(const std::string& bytes, CIniProbe& probe);

}  // namespace check

#endif
