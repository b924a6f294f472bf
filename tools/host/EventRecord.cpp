#include "EventRecord.h"

#include <bit>

namespace zorv::host {

bool EventRecord::SetTextByName(std::string_view name, ZString value) {
    for (size_t i = 0; i < kTextFieldCount; ++i) {
        if (name == kTextFields[i].name) {
            SetText(i, std::move(value));
            return true;
        }
    }
    return false;
}

const AppCtlEvent& EventRecord::Raw() {
    // Clear() nulled every pointer, and a field once set stays set until the
    // next Clear(), so only the set ones are aimed.
    for (uint32_t bits = m_textsPresent; bits != 0; bits &= bits - 1) {
        const int i = std::countr_zero(bits);
        m_event.*(kTextFields[i].member) = m_texts[i].c_str();
    }
    for (uint32_t bits = m_digestsPresent; bits != 0; bits &= bits - 1) {
        const int i = std::countr_zero(bits);
        m_event.*(kDigestFields[i].member) = m_digests[i].data();
    }
    return m_event;
}

}  // namespace zorv::host
