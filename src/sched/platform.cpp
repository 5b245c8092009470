#include "sched/platform.h"

#include <cstdlib>
#include <string_view>

bool is_prognosis_platform() {
    const char* platform = std::getenv("VGD_PLATFORM");
    if (platform == nullptr) {
        return false;
    }
    const std::string_view code(platform);
    return code == "KT" || code == "ZW";
}
