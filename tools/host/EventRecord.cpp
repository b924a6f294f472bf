#include "EventRecord.h"

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
    for (size_t i = 0; i < kTextFieldCount; ++i)
        m_event.*(kTextFields[i].member) = m_hasText[i] ? m_texts[i].c_str() : nullptr;
    for (size_t i = 0; i < kDigestFieldCount; ++i)
        m_event.*(kDigestFields[i].member) = m_hasDigest[i] ? m_digests[i].data() : nullptr;
    return m_event;
}

}  // namespace zorv::host
