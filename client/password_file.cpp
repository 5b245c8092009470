#include "password_file.h"

#include "mail/replace_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace client {

namespace {

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
        problem = path + ": not a password file (the scheduler would require no login)";
        return false;
    }
    record = {hash, salt};
    return true;
}

bool write_password_file(const std::string& path, const password_record& record, std::string& problem) {
    return replace_file(path, record.hash + " " + record.salt + "\n", 0600, true, problem,
                        [&](int fd) { return give_to_owner(fd, path); });
}

}  // namespace client
