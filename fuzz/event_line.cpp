// Bytes of the event pipe: they are split into lines, classified, and queued for the operators. The module list is
// empty, so follow-up commands are refused.
#include "comm/hmi_table.h"
#include "event/event_pipe.h"
#include "support.h"

#include <cstring>

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::Suite suite;
    static hmistruc* const hmi = hmistruc_init() == 0 ? hmistruc_get() : nullptr;
    event_line line;
    for (const char byte : fuzz::text_of(data, size)) {
        if (!line.add(byte) || std::strstr(line.text(), "I0199") != nullptr) continue;  // which ends the process
        do_eventmsg(line.text());
        char queued[message_size] = "";
        std::uint32_t when = 0;
        if (hmistruc_dequeue(*hmi, queued, when) != 0) continue;
        fuzz::require(eventtype_check(queued) == event_type::monitoring_message, "operators get messages only");
        fuzz::require(std::string_view(line.text()).ends_with(queued), "operators get the whole message");
    }
    return 0;
}
