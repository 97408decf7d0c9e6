#pragma once
// A small dense float matrix, lines by columns, stored line after line. The ASTC encoder
// holds per-texel and per-grid-point weights in it (one column, one line per index).
#include <cstddef>
#include <vector>

namespace glyptora_astc {

class FloatMatrix {
public:
    FloatMatrix() = default;
    explicit FloatMatrix(unsigned lines, unsigned columns = 1)
        : lines_(lines), columns_(columns), values_(std::size_t(lines) * columns, 0.0f) {}

    unsigned Lines() const { return lines_; }
    unsigned Columns() const { return columns_; }

    float& operator()(unsigned line, unsigned column = 0) { return values_[std::size_t(line) * columns_ + column]; }
    float operator()(unsigned line, unsigned column = 0) const {
        return values_[std::size_t(line) * columns_ + column];
    }

private:
    unsigned lines_ = 0;
    unsigned columns_ = 0;
    std::vector<float> values_;
};

}  // namespace glyptora_astc
