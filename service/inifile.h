//  The ini reader: a grammar of single characters that accepts any bytes and reports no syntax error.
//
//      [section]           the callback gets (section, "", "")
//      rdb url = x ; note  blanks inside a key are removed; a value ends at ; # or the line's end: (section, rdburl, x)
//      # or ; anywhere     a comment up to the line's end; the key read so far is discarded
//
//  The following is deliberate, because existing files rely on it. A line without "=" does not end its key, so its text
//  becomes the start of the next key. Quotes around a value are part of it. A value cannot contain ; or #. After the
//  value, only a line feed ends its line.
#ifndef SERVICE_INIFILE_H
#define SERVICE_INIFILE_H

#include <functional>
#include <string>

//  Called for each value, and for each section header with an empty key and value. Reading stops if it returns true.
using IniCallback = std::function<bool(const std::string& section, const std::string& key, const std::string& value)>;

//  Reads the file at path. Skips a UTF-8 byte order mark at its start. Returns false if the file cannot be opened.
bool read_ini_file(const char* path, const IniCallback& callback);

//  Returns the folder of the executable, ending with "/". Returns an empty text if the folder is unknown; a file name
//  that is appended to the empty text is relative to the working directory.
std::string getExeDir();

#endif
