#include "astc/partition_selection.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "astc/dual_plane_choice.h"
#include "astc/weight_spectrum.h"
#include "core/vec4.h"

namespace glyptora_astc {

namespace {

using glyptora_simd::Vec4f;

constexpr int kKMeansRounds = 4;
constexpr int kMaxShortlist = 128;

// Squared distances of texels i..i+3 to `centre`, channel by channel in order.
Vec4f distance2(const AstcBlockTexels& t, int i, const float* centre) {
    Vec4f d;
    for (int c = 0; c < 4; ++c) {
        const Vec4f e = Vec4f::load(t.channel[c] + i) - Vec4f(centre[c]);
        d += e * e;
    }
    return d;
}

// k-means over the valid texels, started from farthest points: the texel farthest from the
// mean, then each time the texel farthest from the centres so far. Writes each cluster's
// texel set, and after the k clusters the set of all valid texels.
void clusterTexels(const AstcBlockTexels& t, int k, uint64_t clusters[5][kAstcTexelWords]) {
    float centre[4][4] = {}, mean[4] = {};
    for (int i = 0; i < t.texels; ++i)
        if (t.valid[i] != 0.0f)
            for (int c = 0; c < 4; ++c) mean[c] += t.channel[c][i] / float(t.validCount);
    alignas(16) float nearest[kAstcMaxTexels];
    for (int i = 0; i < t.padded; i += 4) distance2(t, i, mean).store(nearest + i);
    for (int j = 0; j < k; ++j) {
        int far = -1;
        for (int i = 0; i < t.texels; ++i)
            if (t.valid[i] != 0.0f && (far < 0 || nearest[i] > nearest[far])) far = i;
        for (int c = 0; c < 4; ++c) centre[j][c] = t.channel[c][far];
        for (int i = 0; i < t.padded; i += 4) {
            const Vec4f d = distance2(t, i, centre[j]);
            (j == 0 ? d : glyptora_simd::min(Vec4f::load(nearest + i), d)).store(nearest + i);
        }
    }
    alignas(16) float label[kAstcMaxTexels] = {};
    for (int round = 0; round < kKMeansRounds; ++round) {
        // The nearest centre of each texel, four texels at a time; the first of equals.
        for (int i = 0; i < t.padded; i += 4) {
            Vec4f bestD = distance2(t, i, centre[0]), best;
            for (int j = 1; j < k; ++j) {
                const Vec4f d = distance2(t, i, centre[j]);
                const Vec4f closer = glyptora_simd::cmpLess(d, bestD);
                bestD = glyptora_simd::select(closer, d, bestD);
                best = glyptora_simd::select(closer, Vec4f(float(j)), best);
            }
            best.store(label + i);
        }
        float sum[4][5] = {};
        for (int i = 0; i < t.texels; ++i) {
            if (t.valid[i] == 0.0f) continue;
            const int best = int(label[i]);
            for (int c = 0; c < 4; ++c) sum[best][c] += t.channel[c][i];
            sum[best][4] += 1.0f;
        }
        for (int j = 0; j < k; ++j)
            if (sum[j][4] > 0.0f)
                for (int c = 0; c < 4; ++c) centre[j][c] = sum[j][c] / sum[j][4];
    }
    for (int j = 0; j <= 4; ++j)
        for (int w = 0; w < kAstcTexelWords; ++w) clusters[j][w] = 0;
    for (int i = 0; i < t.texels; ++i)
        if (t.valid[i] != 0.0f) {
            clusters[int(label[i])][i >> 6] |= uint64_t(1) << (i & 63);
            clusters[k][i >> 6] |= uint64_t(1) << (i & 63);
        }
}

// Set bits of a word: portably, or by the processor's population-count instruction (in the
// scan compiled for processors that have one).
struct PortableBitCount {
    static int of(uint64_t x) {
        x -= (x >> 1) & 0x5555555555555555ull;
        x = (x & 0x3333333333333333ull) + ((x >> 2) & 0x3333333333333333ull);
        x = (x + (x >> 4)) & 0x0F0F0F0F0F0F0F0Full;
        return int((x * 0x0101010101010101ull) >> 56);
    }
};
struct HardwareBitCount {
    static int of(uint64_t x) { return __builtin_popcountll(x); }
};

// What the scan over the patterns compares them with: the clusters' texel sets (after them,
// all valid texels), and the matchings of partitions to clusters.
struct Matchings {
    int count = 0;
    uint8_t order[24][4];
};

// The matchings of k partitions to k clusters: the orders of 0..3 that leave k..3 in place.
const Matchings& matchingsOf(int k) {
    static const std::array<Matchings, 5> all = [] {
        std::array<Matchings, 5> m{};
        for (int parts = 0; parts <= 4; ++parts)
            for (int q = 0; q < 24; ++q) {
                uint8_t order[4], rest[4] = {0, 1, 2, 3};
                for (int p = 0, code = q, left = 4; p < 4; ++p, --left) {
                    const int pick = code % left;
                    code /= left;
                    order[p] = rest[pick];
                    for (int j = pick; j + 1 < left; ++j) rest[j] = rest[j + 1];
                }
                bool fixed = true;
                for (int p = parts; p < 4; ++p) fixed = fixed && order[p] == p;
                if (fixed) std::copy(order, order + 4, m[size_t(parts)].order[m[size_t(parts)].count++]);
            }
        return m;
    }();
    return all[size_t(k)];
}

struct ClusterScan {
    int k = 2, words = 1;
    uint64_t clusters[5][kAstcTexelWords];
    const Matchings* matchings = nullptr;
};

// The texels a matching of partitions to clusters keeps together, at the best matching;
// shared[p][j] counts the texels of partition p in cluster j.
[[gnu::always_inline]] inline int bestMatching(const int shared[4][4], const ClusterScan& scan) {
    int best = 0;
    const Matchings& m = *scan.matchings;
    for (int q = 0; q < m.count; ++q) {
        int n = 0;
        for (int p = 0; p < scan.k; ++p) n += shared[p][m.order[q][p]];
        best = std::max(best, n);
    }
    return best;
}

// Texels of the pattern's partitions that the clustering also groups together, under the
// best matching of partitions to clusters. The last cluster's share of each partition is
// what the others leave of the partition's valid texels.
template <typename Count>
[[gnu::always_inline]] inline int agreement(const AstcPartitionPattern& pattern, const ClusterScan& scan) {
    const int k = scan.k, words = scan.words;
    if (k == 2) {
        // Two matchings: the texels one keeps are the ones the other loses.
        int same = 0, all = 0;
        for (int w = 0; w < words; ++w) {
            same += Count::of(pattern.texelsOf[0][w] & scan.clusters[0][w]) +
                    Count::of(pattern.texelsOf[1][w] & scan.clusters[1][w]);
            all += Count::of(scan.clusters[2][w]);
        }
        return std::max(same, all - same);
    }
    int shared[4][4];
    for (int p = 0; p < k; ++p) {
        int owned = 0;
        for (int w = 0; w < words; ++w) owned += Count::of(pattern.texelsOf[p][w] & scan.clusters[k][w]);
        for (int j = 0; j + 1 < k; ++j) {
            int n = 0;
            for (int w = 0; w < words; ++w) n += Count::of(pattern.texelsOf[p][w] & scan.clusters[j][w]);
            shared[p][j] = n;
            owned -= n;
        }
        shared[p][k - 1] = owned;
    }
    return bestMatching(shared, scan);
}

// Inserts pattern `pattern` of score `s` into the shortlist of at most `size`, best first,
// earlier patterns first among equals.
[[gnu::always_inline]] inline void shortlistInsert(int s, const AstcPartitionPattern* pattern, int size, int* score,
                                                   const AstcPartitionPattern** listed, int& count) {
    if (count == size && score[size - 1] >= s) return;
    int at = count < size ? count : size - 1;
    while (at > 0 && score[at - 1] < s) score[at] = score[at - 1], listed[at] = listed[at - 1], --at;
    score[at] = s, listed[at] = pattern;
    count = std::min(count + 1, size);
}

// The most distinct patterns of one partition count (there are 1024 seeds).
constexpr int kMaxDistinctPatterns = 1024;

// The `size` best of `count` integer scores (0..`top`), best first, earlier first among equals,
// by a counting sort: the same list as inserting them one by one, without the shifting.
// `histogram` counts the patterns of each score.
template <typename PatternOf>
int shortlistByCounting(const uint8_t* scores, const int* histogram, int count, int top, int size,
                        PatternOf&& patternOf, const AstcPartitionPattern** listed) {
    // The lowest score that makes the list, and where each score at or above it starts there.
    int threshold = top, taken = 0;
    while (threshold > 0 && taken + histogram[threshold] < size) taken += histogram[threshold--];
    int next[kAstcMaxTexels + 1];
    for (int v = top, at = 0; v >= threshold; --v) next[v] = at, at += histogram[v];
    for (int j = 0; j < count; ++j) {
        const int v = scores[j];
        if (v >= threshold && next[v] < size) listed[next[v]++] = patternOf(j);
    }
    return std::min(count, size);
}

// The agreement scan over the packed texel sets of footprints of at most 64 texels: the
// same scores and list as agreement() and shortlistInsert(), with what does not depend on the
// pattern counted once; with more than two partitions a bound passes over most patterns
// before their matchings are tried.
template <typename Count>
[[gnu::always_inline]] inline int shortlistOneWord(const AstcPartitionTable& table, const ClusterScan& scan, int size,
                                                  const AstcPartitionPattern** listed) {
    const std::vector<AstcPartitionPattern>& patterns = table.patterns(scan.k);
    const std::vector<uint16_t>& distinct = table.distinct(scan.k);
    const uint64_t* sets = table.distinctTexelSets(scan.k).data();
    const int k = scan.k, patternCount = int(distinct.size());
    const uint64_t c0 = scan.clusters[0][0], c1 = scan.clusters[1][0], c2 = scan.clusters[2][0];
    const uint64_t valid = scan.clusters[k][0];
    if (k == 2) {
        // The clusters split the valid texels and the partitions the footprint, so the texels
        // kept together are the valid ones on which the first partition and the first cluster
        // agree, or under the other matching those on which they differ.
        const int all = Count::of(valid);
        uint8_t scores[kMaxDistinctPatterns];
        int histogram[kAstcMaxTexels + 1] = {};
        for (int j = 0; j < patternCount; ++j, sets += 4) {
            const int differ = Count::of((sets[0] ^ c0) & valid);
            const int score = std::max(differ, all - differ);
            scores[j] = uint8_t(score);
            ++histogram[score];
        }
        return shortlistByCounting(scores, histogram, patternCount, all, size,
                                   [&](int j) { return &patterns[distinct[j]]; }, listed);
    }
    int score[kMaxShortlist], count = 0;
    for (int j = 0; j < patternCount; ++j, sets += 4) {
        int shared[4][4];
        for (int p = 0; p < k; ++p) {
            const uint64_t m = sets[p];
            shared[p][0] = Count::of(m & c0);
            shared[p][1] = Count::of(m & c1);
            if (k == 4) shared[p][2] = Count::of(m & c2);
            shared[p][k - 1] = Count::of(m & valid) - shared[p][0] - shared[p][1] - (k == 4 ? shared[p][2] : 0);
        }
        // No matching beats each partition taking its largest share: most patterns stop here.
        if (count == size) {
            int bound = 0;
            for (int p = 0; p < k; ++p) {
                int largest = std::max(shared[p][0], shared[p][1]);
                for (int c = 2; c < k; ++c) largest = std::max(largest, shared[p][c]);
                bound += largest;
            }
            if (bound <= score[size - 1]) continue;
        }
        shortlistInsert(bestMatching(shared, scan), &patterns[distinct[j]], size, score, listed, count);
    }
    return count;
}

// The `size` distinct patterns that agree best with the clustering, best first, earlier
// seeds first among equals; returns how many.
template <typename Count>
[[gnu::always_inline]] inline int shortlistPatterns(const AstcPartitionTable& table, const ClusterScan& scan, int size,
                                                   const AstcPartitionPattern** listed) {
    if (scan.words == 1) return shortlistOneWord<Count>(table, scan, size, listed);
    const std::vector<AstcPartitionPattern>& patterns = table.patterns(scan.k);
    const std::vector<uint16_t>& distinct = table.distinct(scan.k);
    if (scan.k == 2) {
        uint8_t scores[kMaxDistinctPatterns];
        int histogram[kAstcMaxTexels + 1] = {};
        const int patternCount = int(distinct.size());
        for (int j = 0; j < patternCount; ++j) {
            scores[j] = uint8_t(agreement<Count>(patterns[distinct[j]], scan));
            ++histogram[scores[j]];
        }
        int all = 0;
        for (int w = 0; w < scan.words; ++w) all += Count::of(scan.clusters[2][w]);
        return shortlistByCounting(scores, histogram, patternCount, all, size,
                                   [&](int j) { return &patterns[distinct[j]]; }, listed);
    }
    int score[kMaxShortlist], count = 0;
    for (const uint16_t index : distinct) {
        const AstcPartitionPattern& pattern = patterns[index];
        shortlistInsert(agreement<Count>(pattern, scan), &pattern, size, score, listed, count);
    }
    return count;
}

[[gnu::target("popcnt")]] int shortlistWithPopcount(const AstcPartitionTable& table, const ClusterScan& scan,
                                                     int size, const AstcPartitionPattern** listed) {
    return shortlistPatterns<HardwareBitCount>(table, scan, size, listed);
}

int shortlist(const AstcPartitionTable& table, const ClusterScan& scan, int size, const AstcPartitionPattern** listed) {
    static const bool popcount = __builtin_cpu_supports("popcnt");
    return popcount ? shortlistWithPopcount(table, scan, size, listed)
                    : shortlistPatterns<PortableBitCount>(table, scan, size, listed);
}

// What one line through colours of covariance rows `c` leaves unexplained: the trace less the
// largest eigenvalue, here the Rayleigh quotient after a few rounds of power iteration from
// row `start` (enough to rank patterns, and cheap enough to rank many).
[[gnu::always_inline]] inline float quickLineResidual(const Vec4f c[4], float trace, int start) {
    if (!(trace > 0.0f)) return 0.0f;
    const auto times = [&](Vec4f v) {
        return c[0] * v.splat<0>() + c[1] * v.splat<1>() + c[2] * v.splat<2>() + c[3] * v.splat<3>();
    };
    // Reciprocal estimates: the ranking needs no more precision than they give.
    const Vec4f scale = glyptora_simd::reciprocalEstimate(Vec4f(trace));  // keeps the iterates near unit size
    Vec4f v = c[start] * scale;
    for (int round = 0; round < 2; ++round) v = times(v) * scale;
    const float vv = glyptora_simd::dot4(v, v);
    if (!(vv > 0.0f)) return trace;
    const float residual = trace - glyptora_simd::dot4(v, times(v)) * glyptora_simd::reciprocalEstimate(Vec4f(vv))[0];
    return residual > 0.0f ? residual : 0.0f;
}

// The covariance of one partition's colours, with their count, its trace and its row of
// largest diagonal.
struct PartitionCovariance {
    Vec4f rows[4];
    float n = 0.0f, trace = 0.0f;
    int start = 0;

    // What one line leaves of the colours, summed over the texels.
    float residual() const { return n * quickLineResidual(rows, trace, start); }
};

// Footprints up to this many texels may rank every distinct two-partition pattern; on larger
// ones that gains little over the shortlist.
constexpr int kEveryPatternTexels = 20;

// Per texel the sums a partition's covariance is made of, packed in four vectors: count, R,
// G, B | A, RR, RG, RB | RA, GG, GB, GA | BB, BA, AA, 0 (the products of the valid texels'
// colours; an invalid texel, or one past the footprint, adds nothing).
constexpr int kPacked = 4;
constexpr int kPackedScalars = 16;
// Where each covariance entry (row, column) reads its product sum, and each channel its
// colour sum, in the packed scalars.
constexpr int kProductAt[4][4] = {{5, 6, 7, 8}, {6, 9, 10, 11}, {7, 10, 12, 13}, {8, 11, 13, 14}};
constexpr int kColourAt[4] = {1, 2, 3, 4};

void packTexel(const AstcBlockTexels& t, int i, Vec4f rows[kPacked]) {
    if (i >= t.texels) {
        for (int r = 0; r < kPacked; ++r) rows[r] = Vec4f();
        return;
    }
    const float v = t.valid[i], R = t.channel[0][i], G = t.channel[1][i], B = t.channel[2][i], A = t.channel[3][i];
    alignas(16) float c[4];
    (Vec4f(R, G, B, A) * Vec4f(v)).store(c);
    rows[0] = Vec4f(v, c[0], c[1], c[2]);
    rows[1] = Vec4f(c[3], c[0] * R, c[1] * R, c[2] * R);
    rows[2] = Vec4f(c[3] * R, c[1] * G, c[2] * G, c[3] * G);
    rows[3] = Vec4f(c[2] * B, c[3] * B, c[3] * A, 0.0f);
}

// The covariances of four partitions at once, one per lane, from their packed sums (one
// vector per packed scalar).
struct FourCovariances {
    Vec4f n, mean[4], cov[4][4], trace, bound;

    explicit FourCovariances(const Vec4f sums[kPackedScalars]) : n(sums[0]) {
        const Vec4f inverse = Vec4f(1.0f) / n;
        for (int c = 0; c < 4; ++c) mean[c] = sums[kColourAt[c]] * inverse;
        Vec4f norm2;
        for (int r = 0; r < 4; ++r)
            for (int c = r; c < 4; ++c) {
                cov[r][c] = cov[c][r] = sums[kProductAt[r][c]] * inverse - mean[c] * mean[r];
                norm2 += cov[r][c] * cov[r][c] * Vec4f(r == c ? 1.0f : 2.0f);
            }
        trace = cov[0][0] + cov[1][1] + cov[2][2] + cov[3][3];
        // Fewer than two texels leave no residual (and their lanes no meaningful sums).
        const Vec4f enough = glyptora_simd::cmpLessEqual(Vec4f(2.0f), n);
        bound = glyptora_simd::select(enough, n * glyptora_simd::max(trace - glyptora_simd::sqrt(norm2), Vec4f()),
                                      Vec4f());
    }

    // From the packed sums of four partitions, [row][partition] (transposed in place).
    static FourCovariances ofPartitions(Vec4f packed[kPacked][4]) {
        Vec4f sums[kPackedScalars];
        for (int r = 0; r < kPacked; ++r) {
            glyptora_simd::transpose4(packed[r][0], packed[r][1], packed[r][2], packed[r][3]);
            for (int k = 0; k < 4; ++k) sums[r * 4 + k] = packed[r][k];
        }
        return FourCovariances(sums);
    }

    // Lane `l` as one PartitionCovariance.
    PartitionCovariance lane(int l) const {
        PartitionCovariance c;
        if (!(n[l] >= 2.0f)) return c;
        c.n = n[l];
        for (int r = 0; r < 4; ++r) c.rows[r] = Vec4f(cov[r][0][l], cov[r][1][l], cov[r][2][l], cov[r][3][l]);
        for (int k = 1; k < 4; ++k)
            if (cov[k][k][l] > cov[c.start][c.start][l]) c.start = k;
        c.trace = trace[l];
        return c;
    }
};

// The packed sums of every subset of each run of four texels: a partition's sums are then one
// lookup per run, by the four bits of its texel set there, instead of one sum per texel.
struct PackedSubsets {
    static constexpr int kMaxGroups = kAstcMaxTexels / 4;
    int groups = 0;
    alignas(16) float sums[kMaxGroups][16][kPacked][4];
    Vec4f total[kPacked];

    explicit PackedSubsets(const AstcBlockTexels& t) : groups((t.texels + 3) / 4) {
        for (int g = 0; g < groups; ++g) {
            Vec4f texel[4][kPacked];
            for (int b = 0; b < 4; ++b) packTexel(t, g * 4 + b, texel[b]);
            for (int r = 0; r < kPacked; ++r) Vec4f().store(sums[g][0][r]);
            // Each subset is a smaller one plus its highest texel.
            for (int mask = 1; mask < 16; ++mask) {
                const int top = 31 - __builtin_clz(unsigned(mask));
                for (int r = 0; r < kPacked; ++r)
                    (Vec4f::load(sums[g][mask & ~(1 << top)][r]) + texel[top][r]).store(sums[g][mask][r]);
            }
            for (int r = 0; r < kPacked; ++r) total[r] += Vec4f::load(sums[g][15][r]);
        }
    }

    // The sums of the texels in `set` (bit i for texel i), sixteen runs to a word.
    void of(const uint64_t* set, Vec4f out[kPacked]) const {
        if (groups <= 16) return ofRuns(set[0], 0, groups, out);
        Vec4f part[kPacked];
        ofRuns(set[0], 0, 16, out);
        for (int first = 16; first < groups; first += 16) {
            ofRuns(set[first >> 4], first, std::min(groups, first + 16), part);
            for (int r = 0; r < kPacked; ++r) out[r] += part[r];
        }
    }

private:
    void ofRuns(uint64_t bits, int first, int last, Vec4f out[kPacked]) const {
        Vec4f s0, s1, s2, s3;
        for (int g = first; g < last; ++g, bits >>= 4) {
            const float(*run)[4] = sums[g][bits & 15];
            s0 += Vec4f::load(run[0]);
            s1 += Vec4f::load(run[1]);
            s2 += Vec4f::load(run[2]);
            s3 += Vec4f::load(run[3]);
        }
        out[0] = s0, out[1] = s1, out[2] = s2, out[3] = s3;
    }
};

// Ranks two-partition patterns by what one line per partition leaves; writes the `keep` best,
// earlier ones first among equals. `setOf(j)` gives pattern j's first partition, `patternOf(j)`
// the pattern. The second partition's sums are the rest of the block's. Four patterns are
// bounded at once (one per lane); only those the bound cannot pass over get their eigenvalues.
template <typename SetOf, typename PatternOf>
int rankTwoPartitionPatterns(const PackedSubsets& subsets, int patternCount, int keep, SetOf&& setOf,
                             PatternOf&& patternOf, const AstcPartitionPattern** out) {
    Vec4f total[kPackedScalars];
    for (int r = 0; r < kPacked; ++r) {
        alignas(16) float lanes[4];
        subsets.total[r].store(lanes);
        for (int k = 0; k < 4; ++k) total[r * 4 + k] = Vec4f(lanes[k]);
    }
    float kept[8];
    int count = 0;
    for (int first = 0; first < patternCount; first += 4) {
        const int lanes = std::min(4, patternCount - first);
        Vec4f packed[kPacked][4];  // [row][pattern]
        for (int l = 0; l < 4; ++l) {
            Vec4f sum[kPacked];
            if (l < lanes) subsets.of(setOf(first + l), sum);
            for (int r = 0; r < kPacked; ++r) packed[r][l] = sum[r];
        }
        const FourCovariances a = FourCovariances::ofPartitions(packed);
        Vec4f secondSums[kPackedScalars];
        for (int r = 0; r < kPacked; ++r)
            for (int k = 0; k < 4; ++k) secondSums[r * 4 + k] = total[r * 4 + k] - packed[r][k];
        const FourCovariances b(secondSums);
        alignas(16) float bounds[4];
        (a.bound + b.bound).store(bounds);
        for (int l = 0; l < lanes; ++l) {
            // Most patterns are passed over by the bound alone, without their eigenvalues.
            if (count == keep && !(bounds[l] < kept[keep - 1])) continue;
            const float residual = a.lane(l).residual() + b.lane(l).residual();
            if (count == keep && !(residual < kept[keep - 1])) continue;
            int at = count < keep ? count : keep - 1;
            while (at > 0 && residual < kept[at - 1]) kept[at] = kept[at - 1], out[at] = out[at - 1], --at;
            kept[at] = residual, out[at] = patternOf(first + l);
            count = std::min(count + 1, keep);
        }
    }
    return count;
}

// Every distinct two-partition pattern of a footprint of at most 64 texels, ranked.
int rankEveryTwoPartitionPattern(const PackedSubsets& subsets, const AstcPartitionTable& table, int keep,
                                 const AstcPartitionPattern** out) {
    const std::vector<AstcPartitionPattern>& patterns = table.patterns(2);
    const std::vector<uint16_t>& distinct = table.distinct(2);
    const uint64_t* sets = table.distinctTexelSets(2).data();
    return rankTwoPartitionPatterns(
        subsets, int(distinct.size()), keep, [&](int j) { return sets + size_t(j) * 4; },
        [&](int j) { return &patterns[distinct[size_t(j)]]; }, out);
}

// How much the reference grid's loss counts beside the line residual: measured (0.25 ranks best
// at 6x6 to 12x12; the refits of a full search recover much of what the spectrum says is lost).
constexpr float kGridLossWeight = 0.25f;

// The direction of one partition's colours (unit length; zero without spread), by power
// iteration from its row of largest diagonal.
Vec4f principalDirection(const PartitionCovariance& c) {
    if (!(c.trace > 0.0f)) return Vec4f();
    Vec4f v = c.rows[c.start];
    for (int round = 0; round < 4; ++round) {
        v = c.rows[0] * v.splat<0>() + c.rows[1] * v.splat<1>() + c.rows[2] * v.splat<2>() + c.rows[3] * v.splat<3>();
        const float vv = glyptora_simd::dot4(v, v);
        if (!(vv > 1e-30f)) return Vec4f();
        v = v * Vec4f(1.0f / std::sqrt(vv));
    }
    return v;
}

// What a `grid` of weights cannot hold of the pattern's, in colour: each texel's weight is its
// position along its partition's direction between the partition's extremes; the energy of
// those weights above the grid's frequencies is lost, at the texels' mean squared span. One
// line per partition explains colours that a grid coarser than the footprint may still be
// unable to draw: a partition holding both sides of a sharp edge needs a weight step the grid
// smooths away.
float gridLoss(const AstcBlockTexels& t, const AstcPartitionPattern& pattern, int k, const FourCovariances& c,
               const AstcGridSize& grid) {
    float direction[4][4], mean[4][4];
    for (int p = 0; p < k; ++p) {
        principalDirection(c.lane(p)).store(direction[p]);
        for (int ch = 0; ch < 4; ++ch) mean[p][ch] = c.mean[ch][p];
    }
    // Each texel's position along its partition's direction, four texels at a time, with the
    // extremes of each partition over its valid texels.
    const Vec4f far(1e30f);
    Vec4f lo[4] = {far, far, far, far}, hi[4] = {-far, -far, -far, -far};
    alignas(16) float u[kAstcMaxTexels];
    for (int i = 0; i < t.padded; i += 4) {
        const uint8_t* of = pattern.partitionOf + i;
        const Vec4f partition{float(of[0]), float(of[1]), float(of[2]), float(of[3])};
        const Vec4f valid = glyptora_simd::cmpGreater(Vec4f::load(t.valid + i), Vec4f());
        Vec4f position;
        for (int p = 0; p < k; ++p) {
            Vec4f along;
            for (int ch = 0; ch < 4; ++ch)
                along += (Vec4f::load(t.channel[ch] + i) - Vec4f(mean[p][ch])) * Vec4f(direction[p][ch]);
            const Vec4f in = glyptora_simd::cmpEqual(partition, Vec4f(float(p)));
            position = glyptora_simd::select(in, along, position);
            const Vec4f counted = glyptora_simd::select(in, valid, Vec4f());
            lo[p] = glyptora_simd::min(lo[p], glyptora_simd::select(counted, along, far));
            hi[p] = glyptora_simd::max(hi[p], glyptora_simd::select(counted, along, -far));
        }
        position.store(u + i);
    }
    // Positions to weights 0..1 between the extremes; the spans weigh what the grid loses.
    alignas(16) float low[4] = {}, scale[4] = {};
    float spanSquared = 0.0f;
    for (int p = 0; p < k; ++p) {
        alignas(16) float l[4], h[4];
        lo[p].store(l), hi[p].store(h);
        low[p] = std::min(std::min(l[0], l[1]), std::min(l[2], l[3]));
        const float high = std::max(std::max(h[0], h[1]), std::max(h[2], h[3]));
        const float span = high > low[p] ? high - low[p] : 0.0f;
        scale[p] = span > 0.0f ? 1.0f / span : 0.0f;
        spanSquared += c.n[p] * span * span;
    }
    for (int i = 0; i < t.texels; ++i) {
        const int p = pattern.partitionOf[i];
        u[i] = std::clamp((u[i] - low[p]) * scale[p], 0.0f, 1.0f);
    }
    for (int i = t.texels; i < t.padded; ++i) u[i] = 0.0f;
    astcExtendFromValidTexels(t, u);
    return kGridLossWeight * AstcWeightSpectrum::lostEnergyOf(u, t.blockWidth, t.blockHeight, grid.width, grid.height) *
           spanSquared / float(t.validCount);
}

// The covariances of the pattern's partitions, one partition per lane; the last partition's
// sums are what the others leave of the block's.
FourCovariances partitionCovariances(const PackedSubsets& subsets, const AstcPartitionPattern& pattern, int k) {
    Vec4f sum[kPacked][4];  // [row][partition]
    Vec4f rest[kPacked];
    for (int r = 0; r < kPacked; ++r) rest[r] = subsets.total[r];
    for (int p = 0; p + 1 < k; ++p) {
        Vec4f part[kPacked];
        subsets.of(pattern.texelsOf[p], part);
        for (int r = 0; r < kPacked; ++r) sum[r][p] = part[r], rest[r] -= part[r];
    }
    for (int r = 0; r < kPacked; ++r) sum[r][k - 1] = rest[r];
    return FourCovariances::ofPartitions(sum);
}

// What one line per partition leaves of the valid texels' colours (sum over texels).
float lineResidual(const FourCovariances& c, int k) {
    float total = 0.0f;
    for (int p = 0; p < k; ++p) total += c.lane(p).residual();
    return total;
}

// Ranks the shortlist by line residual, or with a reference grid by line residual plus what
// the grid loses; writes the `keep` best to `out`, earlier entries first among equals.
int rankShortlist(const AstcBlockTexels& t, const PackedSubsets& subsets, const AstcPartitionPattern** listed,
                  int listedCount, int k, int keep, const AstcGridSize* grid, const AstcPartitionPattern** out) {
    if (k == 2 && grid == nullptr)
        return rankTwoPartitionPatterns(
            subsets, listedCount, keep, [&](int j) { return listed[j]->texelsOf[0]; }, [&](int j) { return listed[j]; },
            out);
    float score[kMaxShortlist];
    int rank[kMaxShortlist];
    for (int j = 0; j < listedCount; ++j) {
        const FourCovariances c = partitionCovariances(subsets, *listed[j], k);
        score[j] = lineResidual(c, k) + (grid != nullptr ? gridLoss(t, *listed[j], k, c, *grid) : 0.0f);
        rank[j] = j;
    }
    std::stable_sort(rank, rank + listedCount, [&](int a, int b) { return score[a] < score[b]; });
    const int kept = std::min(keep, listedCount);
    for (int j = 0; j < kept; ++j) out[j] = listed[rank[j]];
    return kept;
}

}  // namespace

int astcSelectPartitionings(const AstcBlockTexels& texels, const AstcPartitionTable& table, int partitionCount,
                            int keep, const AstcPartitionPattern** out, const AstcPartitionRanking& ranking) {
    const std::vector<AstcPartitionPattern>& patterns = table.patterns(partitionCount);
    keep = std::min(keep, 8);
    if (keep <= 0 || patterns.empty() || texels.validCount < partitionCount) return 0;
    const PackedSubsets subsets(texels);
    if (ranking.everyPattern && partitionCount == 2 && texels.texels <= kEveryPatternTexels)
        return rankEveryTwoPartitionPattern(subsets, table, keep, out);
    ClusterScan scan;
    const int k = scan.k = partitionCount;
    scan.words = (texels.texels + 63) / 64;
    clusterTexels(texels, k, scan.clusters);
    scan.matchings = &matchingsOf(k);
    const AstcPartitionPattern* listed[kMaxShortlist];
    // Two partitions: many patterns ranked by their residual; more partitions: fewer, since
    // agreeing with a clustering into more groups already says more.
    const int size = k == 2 ? std::clamp(ranking.twoPartitionShortlist, keep, kMaxShortlist) : 8 + 4 * keep;
    const int listedCount = shortlist(table, scan, size, listed);
    const AstcGridSize* grid = ranking.referenceGrid.width > 0 ? &ranking.referenceGrid : nullptr;
    return rankShortlist(texels, subsets, listed, listedCount, k, keep, grid, out);
}

}  // namespace glyptora_astc
