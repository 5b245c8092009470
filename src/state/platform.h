// The hardware platform.
#pragma once

// Returns true on the platforms that run the prognosis steps: VGD_PLATFORM is exactly "KT" or "ZW". Any thread.
bool is_prognosis_platform();
