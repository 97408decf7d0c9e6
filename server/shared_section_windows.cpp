// Paging-file backed file mappings. The system commits their memory when they are created
// and removes them with their last handle.
#include <windows.h>

#include <algorithm>

#include "server/shared_section.h"
#include "server/system_error.h"

namespace glyptora_internal {

namespace {

HANDLE sectionOf(intptr_t handle) { return reinterpret_cast<HANDLE>(handle); }

}  // namespace

void SectionView::unmap() {
    if (m_data) UnmapViewOfFile(m_data);
}

std::unique_ptr<SharedSection> SharedSection::create(const std::string& name, uint64_t size, std::string& error) {
    // The system refuses sections of no bytes; an empty one still gets a byte.
    const uint64_t bytes = std::max<uint64_t>(size, 1);
    const HANDLE section = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, DWORD(bytes >> 32),
                                              DWORD(bytes), name.c_str());
    if (!section) {
        error = lastSystemErrorText();
        return nullptr;
    }
    // An existing section of that name (still held by a server that gave up on us) has the
    // size of an earlier request: it is not ours to use.
    if (GetLastError() == ERROR_ALREADY_EXISTS) {
        CloseHandle(section);
        error = systemErrorText(ERROR_ALREADY_EXISTS);
        return nullptr;
    }
    return std::unique_ptr<SharedSection>(new SharedSection(reinterpret_cast<intptr_t>(section), size, name));
}

std::unique_ptr<SharedSection> SharedSection::open(const std::string& name, bool writable, std::string& error) {
    const HANDLE section = OpenFileMappingA(writable ? FILE_MAP_WRITE : FILE_MAP_READ, FALSE, name.c_str());
    if (!section) {
        error = lastSystemErrorText();
        return nullptr;
    }
    return std::unique_ptr<SharedSection>(new SharedSection(reinterpret_cast<intptr_t>(section), 0, std::string()));
}

SharedSection::~SharedSection() { CloseHandle(sectionOf(m_handle)); }

// The creator knows the size; an opened section is mapped whole, and its size is the view's,
// which the system rounds up to whole pages.
bool SharedSection::map(bool writable, SectionView& view, std::string& error) const {
    const bool created = !m_removeOnClose.empty();
    if (created && m_size == 0) {
        view = SectionView();
        return true;
    }
    if (m_size > SIZE_MAX) {
        error = systemErrorText(ERROR_NOT_ENOUGH_MEMORY);
        return false;
    }
    void* data = MapViewOfFile(sectionOf(m_handle), writable ? FILE_MAP_WRITE : FILE_MAP_READ, 0, 0, size_t(m_size));
    if (!data) {
        error = lastSystemErrorText();
        return false;
    }
    uint64_t size = m_size;
    MEMORY_BASIC_INFORMATION region{};
    if (!created) size = VirtualQuery(data, &region, sizeof region) == sizeof region ? region.RegionSize : 0;
    view = SectionView(static_cast<uint8_t*>(data), size);
    return true;
}

void removeAbandonedSections() {}

}  // namespace glyptora_internal
