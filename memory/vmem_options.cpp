// The VMem limit from the settings.
#include <kal/tagset.h>
#include <kal/vmem.h>

#include <algorithm>
#include <cstdlib>

void KalSetMemManOptions(TagSet* options) {
    constexpr uint32_t kLeast = 1500000;
    const char* text = options != nullptr ? options->GetTempTag("VMEMMAX") : nullptr;
    KalSetMaxVMem(text != nullptr ? static_cast<uint32_t>(std::atol(text))
                                  : std::max(KalGetFreeSystemMemory(), kLeast));
}
