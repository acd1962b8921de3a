#include "ini_probe.h"

#include "inifile.h"
#include "runcls.h"

#include <sys/mman.h>
#include <unistd.h>

namespace check {

//  The service's code requires a file name. The text may contain passwords, so the file exists only in memory.
CIniProbe::CIniProbe()
    : file_(memfd_create("addrpubd-check", MFD_CLOEXEC)), path_("/proc/self/fd/" + std::to_string(file_)),
      failed_(file_ == -1) {}

CIniProbe::~CIniProbe() {
    if (file_ != -1)
        close(file_);
}

//  The size is set last, so that the file keeps its memory pages for the next text.
void CIniProbe::write(std::string_view bytes) {
    const auto size = static_cast<off_t>(bytes.size());
    for (off_t end = 0; !failed_ && !bytes.empty();) {
        const ssize_t written = pwrite(file_, bytes.data(), bytes.size(), end);
        failed_ = written <= 0;
        end += written;
        bytes.remove_prefix(failed_ ? 0 : static_cast<std::size_t>(written));
    }
    failed_ = failed_ || ftruncate(file_, size) != 0;
}

std::vector<IniCall> CIniProbe::calls(std::string_view bytes) {
    std::vector<IniCall> all;
    write(bytes);
    if (failed_)
        return all;
    const bool opened = read_ini_file(path_.c_str(), [&all](const auto& section, const auto& key, const auto& value) {
        all.push_back({section, key, value});
        return false;
    });
    failed_ = !opened;
    return all;
}

void CIniProbe::load(std::string_view bytes, CRunCls& run) {
    write(bytes);
    if (failed_)
        return;
    const bool opened = run.loadConfig(path_.c_str());
    failed_ = !opened;
}

}  // namespace check
