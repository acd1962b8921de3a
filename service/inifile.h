//  The ini reader: a grammar of single characters that accepts any bytes and reports no syntax error.
//
//      [section]             calls the callback with ("section", "", "")
//      rdb url = x ; note    calls the callback with ("section", "rdburl", "x")
//      # note                a comment, also after ";"
//
//  Blanks in a key are removed. A value ends at ";", at "#" or at the end of the line. Outside [...] and a value, ";"
//  or "#" starts a comment up to the end of the line and discards the key that was read before it.
//
//  The following is deliberate, because existing files rely on it. The end of a line does not end a key, so the text of
//  a line without "=" becomes the start of the next key, unless a comment or a section header follows it. Quotes around
//  a value are part of the value. A value cannot contain ";" or "#". A carriage return ends a value but not its line:
//  the text after the carriage return is ignored up to the line feed.
#ifndef SERVICE_INIFILE_H
#define SERVICE_INIFILE_H

#include <functional>
#include <string>

//  Called for each value. Also called for each section header, with an empty key and an empty value. A header that the
//  end of the file cuts off is ignored. Reading stops if the callback returns true.
using IniCallback = std::function<bool(const std::string& section, const std::string& key, const std::string& value)>;

//  Reads the file at path. Skips a UTF-8 byte order mark at the start of the file. Returns false if the file cannot be
//  opened.
bool read_ini_file(const char* path, const IniCallback& callback);

//  Returns the folder of the executable, ending with "/". Returns an empty text if the folder is unknown; a file name
//  that is appended to the empty text is relative to the working directory.
std::string getExeDir();

#endif
