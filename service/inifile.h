//  The ini reader: a character-level grammar that reads every byte sequence and reports no syntax error.
//
//      [section]           the callback gets (section, "", "")
//      rdb url = x ; note  blanks inside a key are dropped; a value ends at ; # or the line's end: (section, rdburl, x)
//      # or ; anywhere     a comment to the line's end; the key read so far is dropped
//
//  Deliberate, because files in use rely on it: a line without "=" does not end its key, so it becomes the front of the
//  next one; values are never unquoted and cannot hold ; or #; only a line feed ends the rest of a value's line.
#ifndef SERVICE_INIFILE_H
#define SERVICE_INIFILE_H

#include <functional>
#include <string>

//  Receives each section header (with empty key and value) and each value. Returning true stops the reading.
using IniCallback = std::function<bool(const std::string& section, const std::string& key, const std::string& value)>;

//  Reads the file at path. A UTF-8 byte order mark at its start is skipped. Returns false when it cannot be opened, else
//  true.
bool read_ini_file(const char* path, const IniCallback& callback);

//  Returns the folder of the executable, with a "/" at its end, or an empty text when the system does not report it; a
//  file name appended to that is looked up in the working directory.
std::string getExeDir();

#endif
