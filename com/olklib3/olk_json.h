//  Writers of JSON text (RFC 8259) into a pooled string. There is no tree: each writer appends its piece at the text's
//  end. The caller keeps a member counter, from which a writer sees whether its piece needs a comma in front.
//
//      uint32_t members = 0;
//      out.push_back('{');
//      writeStringMember(&members, "name", name, out);        {"name":"host1"
//      writeStringArrayMember(&members, "ipv6s", list, out);  ,"ipv6s":["2001:db8::1"]
//      out.push_back('}');                                    }
//
//  Eight characters are escaped, each by a backslash and one more character. Every other byte is copied as it is, other
//  control characters and bytes of 128 and above included, although RFC 8259 section 7 wants the former escaped:
//  receivers of these texts see exactly these bytes.
//
//  Without memory pieces of the text are missing and nothing is reported.
//
//  Threads: a writer touches nothing but its arguments; writeIsoTime also reads the process's time zone.
#ifndef OLK_JSON_H
#define OLK_JSON_H

#include "olk_string.h"
#include "olk_vector.h"

namespace olk {

//  Appends c, escaped when it is one of the eight: backspace, tab, line feed, form feed, carriage return, double quote,
//  slash, backslash.
void outJsonEsc(char c, string& out);

//  Returns true when none of the length characters of text needs an escape.
bool isJsonPlain(const char* text, size_t length);

//  Appends a string value with its double quotes. A text that needs no escape is appended in one piece.
void writeString(const char* text, size_t length, string& out);

//  Appends "," unless the member is its object's first one, and counts the member.
void writeSeparator(uint32_t* members, string& out);

//  Appends a member with a string value. An empty value writes nothing and leaves the counter alone. key is
//  zero-terminated and is not escaped.
void writeStringMember(uint32_t* members, const char* key, const string& value, string& out);

//  Appends a member with an array of strings; an empty list gives [].
void writeStringArrayMember(uint32_t* members, const char* key, const vector_<string>& list, string& out);

//  Appends value in decimal, with a leading "-" when it is negative.
void writeDecimal(int32_t value, string& out);
void writeDecimal(uint32_t value, string& out);
void writeDecimal(int64_t value, string& out);

//  Appends a time, in milliseconds since the epoch, as local time in the form 2025-04-11T09:05:03.042+08:00, with the
//  fraction left out when it is zero. The zone is the process's standard-time offset in whole hours, "Z" when that is
//  zero: minutes are always 00, and daylight saving time moves the clock fields and not the zone; receivers rely on it.
//  Returns 1, or 0 when the time has no local form or its text would pass 47 characters; then nothing is appended.
int writeIsoTime(int64_t milliseconds, string& out);

}  // namespace olk

#endif
