#include "mail/replace_file.h"

#include "term/descriptor.h"
#include "term/text.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace client {

std::string directory_of(const std::string& path) {
    const std::string directory = std::filesystem::path(path).parent_path();
    return directory.empty() ? "." : directory;
}

bool replace_file(const std::string& path, std::string_view text, mode_t mode, bool durable,
                  std::string& problem, const std::function<bool(int fd)>& prepare) {
    // The rename would put a file in the place of /dev/null, or of /dev/stdout, for everybody.
    struct stat info {};
    if (lstat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) {
        problem = path + ": is not a regular file";
        return false;
    }
    std::string temporary = path + ".XXXXXX";
    const int fd = mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0) {
        problem = directory_of(path) + ": " + std::generic_category().message(errno);
        return false;
    }
    const bool written = fchmod(fd, mode) == 0 && (prepare == nullptr || prepare(fd)) &&
                         write_all(fd, text) && (!durable || fsync(fd) == 0);
    const int write_error = errno;       // closing may set errno too
    const bool closed = close(fd) == 0;  // some file systems report a full disk only here
    if (written && closed && std::rename(temporary.c_str(), path.c_str()) == 0) {
        const descriptor directory(open(directory_of(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (durable && directory.is_open()) {
            fsync(directory.get());  // a file system may refuse this; the file is in place anyway
        }
        return true;
    }
    problem = path + ": " + std::generic_category().message(written ? errno : write_error);
    unlink(temporary.c_str());
    return false;
}

}  // namespace client
