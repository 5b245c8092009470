// What outlives the client: its directories, and the files in them.
#pragma once

#include "term/descriptor.h"

#include <chrono>
#include <cstdint>
#include <fcntl.h>
#include <optional>
#include <string>
#include <string_view>

// Returns the directory for state files and mailbox: $XDG_STATE_HOME/schedctl when that is set; else the directory of
// the package when it is writable (its users share one mailbox); else the user's own, ~/.local/state/schedctl, created
// with mode 0700. Empty when there is none.
std::string state_directory();

// A directory below it, with a slash at the end; created with the mode of state_directory() when it is missing. Empty
// when there is no state_directory().
std::string state_subdirectory(const char* name);

// The same for what is private: the history of sessions. Never the package's directory.
std::string private_directory();

// Several processes and, in a shared directory, several users write it: only a regular file, no link is followed.
class state_file {
public:
    enum class access {  // flags of open
        read = O_RDONLY,
        update = O_RDWR,
        create = O_RDWR | O_CREAT,
        create_new = create | O_EXCL,
    };

    state_file() = default;
    // A file that is created has the mode 0660 in a shared directory, else 0600, whatever the umask is. errno has the
    // reason when the file is not open.
    state_file(std::string path, access how);

    bool is_open() const { return file_.is_open(); }
    int fd() const { return file_.get(); }
    const std::string& path() const { return path_; }

    // Locks the file against other processes; tries until that time, at least once. Also false when it was removed
    // meanwhile. The lock ends with this object.
    bool lock(std::chrono::steady_clock::time_point until = {});

    // For a file that its owner keeps locked while it lives. When the owner has ended, removes the file and returns
    // true. Several processes may check at the same time: none of them counts as the owner.
    bool remove_dead();

    std::string read() const;
    bool write_at(std::uint64_t offset, std::string_view bytes) const;  // false with errno
    void reserve(std::size_t size) const;  // room, as far as it is missing; throws std::system_error
    bool truncate(std::uint64_t size) const { return ftruncate(fd(), static_cast<off_t>(size)) == 0; }
    void remove();                          // only while it is locked
    bool move_to(const std::string& path);  // false with errno when it exists

private:
    bool is_removed() const;  // it has no name any more

    std::string path_;
    descriptor file_;
};

// The bytes of a regular file, no link followed; nothing when it is another kind of file or cannot be read.
std::optional<std::string> read_file(const std::string& path);
