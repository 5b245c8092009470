#include "password_file.h"

#include "text.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace client {

namespace {

std::string directory_of(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

bool give_to_owner(int fd, const std::string& path) {
    struct stat owner {};
    if (geteuid() != 0) {
        return true;
    }
    if (stat(path.c_str(), &owner) != 0 && stat(directory_of(path).c_str(), &owner) != 0) {
        return false;
    }
    return fchown(fd, owner.st_uid, owner.st_gid) == 0;
}

void sync_directory(const std::string& path) {
    const int fd = open(directory_of(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        return;
    }
    fsync(fd);  // where it is refused, the file is in place all the same
    close(fd);
}

}  // namespace

bool read_password_file(const std::string& path, password_record& record, std::string& problem) {
    std::FILE* file = std::fopen(path.c_str(), "re");
    if (file == nullptr) {
        problem = path + ": " + std::generic_category().message(errno);
        return false;
    }
    char text[128] = "";  // as much as the scheduler reads
    text[std::fread(text, 1, sizeof text - 1, file)] = '\0';
    std::fclose(file);
    char hash[128] = "";
    char salt[128] = "";
    if (std::sscanf(text, "%127s %127s", hash, salt) != 2 || std::strlen(hash) != 64 ||
        std::strlen(salt) != 8) {
        problem = path + ": not a password file (the scheduler would ask nobody for a login)";
        return false;
    }
    record = {hash, salt};
    return true;
}

bool write_password_file(const std::string& path, const password_record& record, std::string& problem) {
    // Following it would let the owner of the directory choose which file root overwrites.
    struct stat info {};
    if (lstat(path.c_str(), &info) == 0 && S_ISLNK(info.st_mode)) {
        problem = path + ": is a symbolic link; name the file itself";
        return false;
    }
    std::string temporary = path + ".XXXXXX";
    const int fd = mkostemp(temporary.data(), O_CLOEXEC);  // with mode 0600
    if (fd < 0) {
        problem = directory_of(path) + ": " + std::generic_category().message(errno);
        return false;
    }
    const bool written =
        give_to_owner(fd, path) && write_all(fd, record.hash + " " + record.salt + "\n") && fsync(fd) == 0;
    // Closing may set errno too.
    const int write_error = errno;
    // Some file systems report a full disk only here.
    const bool closed = close(fd) == 0;
    if (written && closed && std::rename(temporary.c_str(), path.c_str()) == 0) {
        sync_directory(path);
        return true;
    }
    problem = path + ": " + std::generic_category().message(written ? errno : write_error);
    unlink(temporary.c_str());
    return false;
}

}  // namespace client
