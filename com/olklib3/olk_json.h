//  Writers of JSON text (RFC 8259) into a pooled string. Each writer appends its part to the text; there is no tree.
//  The caller keeps a counter of members. The writers of members use it to determine whether a comma must come first.
//
//      uint32_t members = 0;
//      out.push_back('{');
//      writeStringMember(&members, "name", name, out);        {"name":"host1"
//      writeStringArrayMember(&members, "ipv6s", list, out);  ,"ipv6s":["2001:db8::1"]
//      out.push_back('}');                                    }
//
//  Eight characters are escaped, each as a backslash and one character. All other bytes are copied unchanged, including
//  the other control characters, which RFC 8259 section 7 requires to be escaped, and bytes above 127. This is
//  deliberate: receivers expect exactly these bytes.
//
//  When memory is exhausted, parts of the text are missing, and this is not reported.
//
//  Threads: a writer accesses only its arguments and the allocator; writeIsoTime also reads the time zone of the
//  process.
#ifndef OLK_JSON_H
#define OLK_JSON_H

#include "olk_string.h"
#include "olk_vector.h"

namespace olk {

//  Appends c, escaped if it is a backspace, tab, line feed, form feed, carriage return, double quote, slash or
//  backslash.
void outJsonEsc(char c, string& out);

//  Returns true if none of the length characters of text needs an escape.
bool isJsonPlain(const char* text, size_t length);

//  Appends a string value with its double quotes. A text in which no character needs an escape is copied as a whole.
void writeString(const char* text, size_t length, string& out);

//  Appends "," unless the member is the first of its object, and counts the member.
void writeSeparator(uint32_t* members, string& out);

//  Appends a member with a string value, and counts the member. If value is empty, appends and counts nothing. key is
//  zero-terminated and is not escaped.
void writeStringMember(uint32_t* members, const char* key, const string& value, string& out);

//  Appends a member with an array of strings; an empty list becomes [].
void writeStringArrayMember(uint32_t* members, const char* key, const vector_<string>& list, string& out);

//  Appends value in decimal, with "-" if it is negative.
void writeDecimal(int32_t value, string& out);
void writeDecimal(uint32_t value, string& out);
void writeDecimal(int64_t value, string& out);

//  Appends a time, given in milliseconds since the epoch, as local time of the form 2025-04-11T09:05:03.042+08:00. A
//  fraction of zero is omitted; before the epoch the fraction has a minus sign, such as ".-500". The zone is the
//  standard-time offset of the process in whole hours, or "Z" if it is 0 hours. So the minutes of the zone are always
//  00, and daylight saving time changes the clock fields but not the zone. The protocol ws_dnsupdate fixes this form.
//  Returns 1. Returns 0 and appends nothing if the time cannot be converted to local time or its text is longer than 47
//  characters.
int writeIsoTime(int64_t milliseconds, string& out);

}  // namespace olk

#endif
