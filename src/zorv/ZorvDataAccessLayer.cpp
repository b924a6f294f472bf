#include "ZorvDataAccessLayer.h"

namespace zorv {

ZorvDAL& ZorvDAL::Instance() {
    static ZorvDAL dal;
    return dal;
}

ZorvDAL::~ZorvDAL() = default;

bool ZorvDAL::SetDBPath(const std::u16string& path) {
    std::lock_guard<std::mutex> lock(m_initLock);
    if (m_DB) return false;
    m_dbPath = path;
    return true;
}

bool ZorvDAL::IsOpen() const { return static_cast<bool>(m_DB); }
bool ZorvDAL::InitDB() { return true; }
void ZorvDAL::Shutdown() {}
bool ZorvDAL::DeleteDB() { return false; }
bool ZorvDAL::PurgeDB(uint32_t) { return false; }
std::u16string ZorvDAL::GetErrorString() { return {}; }

}  // namespace zorv
