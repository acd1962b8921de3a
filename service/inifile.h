//  The ini reader: a grammar of single characters that accepts any bytes and reports no syntax error.
//
//      [section]           the callback gets (section, "", "")
//      rdb url = x ; note  blanks inside a key are removed; a value ends at ; # or the line's end: (section, rdburl, x)
//      # or ; anywhere     a comment up to the line's end; the key read so far is discarded
//
//  Deliberate, because existing files rely on it: a line without "=" does not end its key, so its text becomes the
//  start of the next key. Quotes around a value are part of it, and a value cannot contain ; or #. Only a line feed
//  ends the rest of a value's line.
#ifndef SERVICE_INIFILE_H
#define SERVICE_INIFILE_H

#include <functional>
#include <string>

//  Called for each section header (with empty key and value) and each value. Reading stops when it returns true.
using IniCallback = std::function<bool(const std::string& section, const std::string& key, const std::string& value)>;

//  Reads the file at path. Skips a UTF-8 byte order mark at its start. Returns false if the file cannot be opened.
bool read_ini_file(const char* path, const IniCallback& callback);

//  Returns the folder of the executable, ending with "/". Returns an empty text if the folder is unknown; a file name
//  appended to it is then relative to the working directory.
std::string getExeDir();

#endif
