#pragma once
// A named block of shared memory that carries pixels between a client and the server.
#include <cstdint>
#include <memory>
#include <string>

namespace glyptora_internal {

// A mapping of a whole section; unmapped when destroyed. The view of an empty section is
// empty (no address) but valid.
class SectionView {
public:
    SectionView() = default;
    ~SectionView();
    SectionView(SectionView&& other) noexcept;
    SectionView& operator=(SectionView&& other) noexcept;

    uint8_t* data() const { return m_data; }
    uint64_t size() const { return m_size; }

private:
    friend class SharedSection;
    SectionView(uint8_t* data, uint64_t size) : m_data(data), m_size(size) {}
    void unmap();  // platform part: releases the mapping, if any
    uint8_t* m_data = nullptr;
    uint64_t m_size = 0;
};

class SharedSection {
public:
    // Creates the section `name` of `size` bytes, usable by this user only, with memory
    // reserved for all of it (so that filling it cannot fail later). The creator removes the
    // name again when the object is destroyed, whatever happened in between.
    static std::unique_ptr<SharedSection> create(const std::string& name, uint64_t size, std::string& error);
    // Opens the existing section `name`.
    static std::unique_ptr<SharedSection> open(const std::string& name, bool writable, std::string& error);
    ~SharedSection();
    SharedSection(const SharedSection&) = delete;
    SharedSection& operator=(const SharedSection&) = delete;

    // The size asked for at creation. A Windows section opened by name reports 0: the system
    // tells its size only through a view (SectionView::size, rounded up to whole pages).
    uint64_t size() const { return m_size; }
    // Maps the whole section; false with `error` set when that fails.
    bool map(bool writable, SectionView& view, std::string& error) const;

private:
    SharedSection(intptr_t handle, uint64_t size, std::string removeOnClose)
        : m_handle(handle), m_size(size), m_removeOnClose(std::move(removeOnClose)) {}
    intptr_t m_handle;  // a file descriptor, or a Windows section HANDLE
    uint64_t m_size;
    std::string m_removeOnClose;  // the name, for the creator
};

// Removes the sections of clients that ended without removing their own (a client killed
// in the middle of a transaction): their names end in a process id that no longer runs.
// Windows sections end with their last handle, so there it does nothing.
void removeAbandonedSections();

}  // namespace glyptora_internal
