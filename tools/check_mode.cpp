//  Checks whether all users may read or write the ini file and the password files. An ini file that contains no
//  password may be readable by all users. Access by the file's group is accepted, because this group may be that of the
//  service.
#include "check.h"
#include "show.h"

namespace check {

namespace {

constexpr char remedy[] = ": chmod o= removes this access";

bool holdsSecret(const Subject& subject, Setting setting) {
    const std::string& text = subject.text(setting);
    return !text.empty() && !text.starts_with("file:/");
}

}  // namespace

void checkMode(const Subject& subject, const struct stat& status, CReport& report) {
    if (S_ISDIR(status.st_mode))
        report.warn(0, "it is a directory, which reads as an empty file");
    if ((status.st_mode & S_IROTH) != 0 && (holdsSecret(subject, rdbpswd) || holdsSecret(subject, dnspswd)))
        report.warn(0, std::string("it holds a password and everybody can read it") + remedy);
    //  A pipe or a device is not a file of the installation, so others may write to it.
    if (S_ISREG(status.st_mode) && (status.st_mode & S_IWOTH) != 0)
        report.warn(0, std::string("everybody can write it") + remedy);
}

void checkPasswordMode(const Subject& subject, Setting password, CReport& report) {
    const std::string path = subject.given(password).substr(5);  // after "file:"
    struct stat status {};
    if (stat(path.c_str(), &status) != 0)
        return;
    const auto remark = [&](mode_t right, const std::string& verb) {
        if ((status.st_mode & right) != 0)
            report.warn(subject.line[password], std::string(settings[password].name) + ": everybody can " + verb +
                                                    " the password file " + printable(path) + remedy);
    };
    remark(S_IROTH, "read");
    remark(S_IWOTH, "write");
}

}  // namespace check
