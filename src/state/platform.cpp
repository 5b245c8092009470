#include "state/platform.h"

#include "util/text.h"

#include <string_view>

bool is_prognosis_platform() {
    const std::string_view code(environment("VGD_PLATFORM"));
    return code == "KT" || code == "ZW";
}
