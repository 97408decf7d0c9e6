#include "server/shared_section.h"

namespace glyptora_internal {

SectionView::~SectionView() { unmap(); }

SectionView::SectionView(SectionView&& other) noexcept : m_data(other.m_data), m_size(other.m_size) {
    other.m_data = nullptr;
    other.m_size = 0;
}

SectionView& SectionView::operator=(SectionView&& other) noexcept {
    if (this != &other) {
        unmap();
        m_data = other.m_data;
        m_size = other.m_size;
        other.m_data = nullptr;
        other.m_size = 0;
    }
    return *this;
}

}  // namespace glyptora_internal
