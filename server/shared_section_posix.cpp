// POSIX shared memory objects; the object's name is the section name with a leading '/'.
#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "server/process_control.h"
#include "server/server_endpoint.h"
#include "server/shared_section.h"
#include "server/system_error.h"

namespace glyptora_internal {

void SectionView::unmap() {
    if (m_data) munmap(m_data, size_t(m_size));
}

std::unique_ptr<SharedSection> SharedSection::create(const std::string& name, uint64_t size, std::string& error) {
    const std::string object = "/" + name;
    const int flags = O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC;
    int handle = shm_open(object.c_str(), flags, 0600);
    if (handle < 0 && errno == EEXIST) {
        // Our own name: left by an earlier process with this id, which has ended.
        shm_unlink(object.c_str());
        handle = shm_open(object.c_str(), flags, 0600);
    }
    if (handle < 0) {
        error = lastSystemErrorText();
        return nullptr;
    }
    std::unique_ptr<SharedSection> section(new SharedSection(handle, size, object));
    if (size > uint64_t(INT64_MAX)) {
        error = systemErrorText(EFBIG);
        return nullptr;
    }
    if (ftruncate(handle, off_t(size)) != 0) {
        error = lastSystemErrorText();
        return nullptr;
    }
    // Reserve the memory now: a section that runs out of it while being filled would kill
    // the process with SIGBUS instead of failing here.
    if (size > 0) {
        int result;
        while ((result = posix_fallocate(handle, 0, off_t(size))) == EINTR) {
        }
        if (result != 0) {
            error = systemErrorText(result);
            return nullptr;
        }
    }
    return section;
}

std::unique_ptr<SharedSection> SharedSection::open(const std::string& name, bool writable, std::string& error) {
    const std::string object = "/" + name;
    const int handle = shm_open(object.c_str(), (writable ? O_RDWR : O_RDONLY) | O_CLOEXEC, 0);
    if (handle < 0) {
        error = lastSystemErrorText();
        return nullptr;
    }
    struct stat info;
    if (fstat(handle, &info) != 0) {
        error = lastSystemErrorText();
        ::close(handle);
        return nullptr;
    }
    return std::unique_ptr<SharedSection>(new SharedSection(handle, uint64_t(info.st_size), std::string()));
}

SharedSection::~SharedSection() {
    ::close(m_handle);
    if (!m_removeOnClose.empty()) shm_unlink(m_removeOnClose.c_str());
}

bool SharedSection::map(bool writable, SectionView& view, std::string& error) const {
    if (m_size == 0) {
        view = SectionView();
        return true;
    }
    if (m_size > SIZE_MAX) {
        error = systemErrorText(ENOMEM);
        return false;
    }
    void* data = mmap(nullptr, size_t(m_size), PROT_READ | (writable ? PROT_WRITE : 0), MAP_SHARED, m_handle, 0);
    if (data == MAP_FAILED) {
        error = lastSystemErrorText();
        return false;
    }
    view = SectionView(static_cast<uint8_t*>(data), m_size);
    return true;
}

void removeAbandonedSections() {
    // Linux keeps the objects as files in /dev/shm; elsewhere nothing is swept.
    DIR* directory = opendir("/dev/shm");
    if (!directory) return;
    const std::string prefixes[] = {destinationSectionName(0), sourceSectionName(0)};
    const int self = currentProcessId();
    while (const dirent* entry = readdir(directory)) {
        const std::string name = entry->d_name;
        for (const std::string& zeroName : prefixes) {
            const std::string prefix = zeroName.substr(0, zeroName.size() - 1);  // without the "0"
            if (name.size() <= prefix.size() || name.compare(0, prefix.size(), prefix) != 0) continue;
            const char* digits = name.c_str() + prefix.size();
            if (*digits < '0' || *digits > '9') continue;
            char* end = nullptr;
            const long id = std::strtol(digits, &end, 10);
            if (*end != '\0' || id <= 0 || id > INT32_MAX || id == self || processIsRunning(int(id))) continue;
            shm_unlink(("/" + name).c_str());
        }
    }
    closedir(directory);
}

}  // namespace glyptora_internal
