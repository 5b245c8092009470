// The exporter is a program of its own, because loading its library for HTTP took more than a third of each start of schedctl.
#include "monitor/monitor.h"

#include <cerrno>
#include <filesystem>
#include <string>
#include <system_error>
#include <unistd.h>

int serve_metrics(const settings&, char** arguments) {
    const std::string program = std::filesystem::read_symlink("/proc/self/exe").replace_filename("schedctl-exporter");
    execv(program.c_str(), arguments);
    throw std::system_error(errno, std::generic_category(), program);
}
