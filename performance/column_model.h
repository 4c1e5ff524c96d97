// The values of one column, compressed: a binary arithmetic coder whose probabilities adapt to the
// column. The model is one template for both directions, so that they cannot differ: the encoder
// returns each decision that it is given, the decoder ignores it and returns the one it reads. See
// docs/performance-format.md.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <numeric>

// How many plain bits go into the interval at once: it may be as narrow as a single number.
inline int PlainBits(uint32_t low, uint32_t high, int wanted) {
    const int room = std::bit_width(high - low) - 1;
    return std::min({wanted, std::max(room - 8, 1), 8});
}

// How probable a set bit is, learnt fast at first and then slowly.
class BitModel {
  public:
    [[nodiscard]] uint32_t Probability() const { return m_probability; }
    void Learn(bool bit) {
        const int32_t target = bit ? kMost : kLeast;
        m_probability = static_cast<uint16_t>(m_probability +
                                              (target - m_probability) * kRates[m_seen] / 65536);
        if (m_seen + 1U < kRates.size()) ++m_seen;
    }

  private:
    static constexpr int32_t kLeast = 24;
    static constexpr int32_t kMost = 65536 - kLeast;
    static constexpr size_t kSlowest = 120;
    static constexpr std::array<int32_t, kSlowest> kRates = [] {
        std::array<int32_t, kSlowest> rates{};
        for (size_t i = 0; i < kSlowest; ++i) {
            rates[i] = static_cast<int32_t>(65536 * 2 / (2 * i + 3));
        }
        return rates;
    }();

    uint16_t m_probability = 32768;
    uint16_t m_seen = 0;
};

// Takes bytes one by one: `sink(byte)`.
template <typename Sink>
class BitEncoder {
  public:
    explicit BitEncoder(Sink sink) : m_sink(sink) {}

    bool Bit(BitModel& model, bool bit) {
        Narrow(model.Probability(), bit);
        model.Learn(bit);
        return bit;
    }
    // Bits that nothing is known about, the highest first.
    uint64_t Plain(int count, uint64_t bits) {
        for (int left = count; left > 0;) {
            const int now = PlainBits(m_low, m_high, left);
            left -= now;
            const auto part = static_cast<uint32_t>((uint64_t{m_high - m_low} + 1) >> now);
            m_low += part * static_cast<uint32_t>(bits >> left & ((uint64_t{1} << now) - 1));
            m_high = m_low + part - 1;
            Shift();
        }
        return bits;
    }
    // The fewest bytes that tell the interval; zeros follow for the decoder.
    void Finish() {
        for (int shift = 24; shift >= 0; shift -= 8) {
            const uint32_t mask = shift == 0 ? 0 : (uint32_t{1} << shift) - 1;
            const uint64_t up = (uint64_t{m_low} + mask) & ~uint64_t{mask};
            if (up > m_high) continue;
            for (int at = 24; at >= shift; at -= 8) m_sink(static_cast<uint8_t>(up >> at));
            return;
        }
    }

  private:
    void Narrow(uint32_t probability, bool bit) {
        const uint32_t middle =
            m_low + static_cast<uint32_t>(uint64_t{m_high - m_low} * probability >> 16);
        (bit ? m_high : m_low) = bit ? middle : middle + 1;
        Shift();
    }
    void Shift() {
        while (((m_low ^ m_high) & 0xff000000U) == 0) {
            m_sink(static_cast<uint8_t>(m_high >> 24));
            m_low <<= 8;
            m_high = m_high << 8 | 0xff;
        }
    }

    Sink m_sink;
    uint32_t m_low = 0;
    uint32_t m_high = UINT32_MAX;
};

// Beyond the end of its bytes it reads zeros.
class BitDecoder {
  public:
    BitDecoder(const uint8_t* begin, const uint8_t* end) : m_next(begin), m_end(end) {
        for (int i = 0; i < 4; ++i) Take();
    }

    bool Bit(BitModel& model, bool /*bit*/) {
        const bool bit = Narrow(model.Probability());
        model.Learn(bit);
        return bit;
    }
    uint64_t Plain(int count, uint64_t /*bits*/) {
        uint64_t bits = 0;
        for (int left = count; left > 0;) {
            const int now = PlainBits(m_low, m_high, left);
            left -= now;
            const auto part = static_cast<uint32_t>((uint64_t{m_high - m_low} + 1) >> now);
            const uint32_t read = std::min((m_value - m_low) / part, (1U << now) - 1);
            bits = bits << now | read;
            m_low += part * read;
            m_high = m_low + part - 1;
            Shift();
        }
        return bits;
    }

  private:
    void Take() { m_value = m_value << 8 | (m_next < m_end ? *m_next++ : 0); }
    void Shift() {
        while (((m_low ^ m_high) & 0xff000000U) == 0) {
            m_low <<= 8;
            m_high = m_high << 8 | 0xff;
            Take();
        }
    }
    bool Narrow(uint32_t probability) {
        const uint32_t middle =
            m_low + static_cast<uint32_t>(uint64_t{m_high - m_low} * probability >> 16);
        const bool bit = m_value <= middle;
        (bit ? m_high : m_low) = bit ? middle : middle + 1;
        Shift();
        return bit;
    }

    const uint8_t* m_next;
    const uint8_t* m_end;
    uint32_t m_low = 0;
    uint32_t m_high = UINT32_MAX;
    uint32_t m_value = 0;
};

// Whole numbers, each near the one before or growing steadily. All arithmetic wraps at 64 bits, so
// any values come back.
class NumberModel {
  public:
    explicit NumberModel(uint64_t first) : m_last(first) {}
    void Restart(uint64_t last) { m_last = last; }

    template <typename Coder>
    uint64_t Next(Coder& coder, uint64_t value) {
        const bool same = coder.Bit(m_same[m_history & 7], value == m_last);
        m_history = static_cast<uint8_t>(m_history << 1 | (same ? 1 : 0));
        if (same) {
            Learn(0);
            return m_last;
        }
        const uint64_t delta = Delta(coder, value - m_last);
        Learn(static_cast<int64_t>(delta));
        if (!m_divided && m_factor != 1) LearnFactor(static_cast<int64_t>(delta));
        return m_last += delta;
    }

  private:
    static constexpr int kPredictors = 3;
    static constexpr size_t kSteps = 8;

    // What the next difference is expected to be, by the predictor that erred least lately.
    [[nodiscard]] int64_t Predicted(int which) const {
        if (which == 0) return 0;
        return which == 1 ? m_delta : m_mean >> 4;
    }
    // What all differences so far have as a factor is taken out.
    template <typename Coder>
    uint64_t Delta(Coder& coder, uint64_t delta) {
        const auto factor = static_cast<int64_t>(m_factor);
        const auto whole = static_cast<int64_t>(delta);
        const bool divides = factor > 1 && coder.Bit(m_divides, whole % factor == 0);
        m_divided = divides;
        const int64_t unit = divides ? factor : 1;
        const int64_t predicted = Predicted(m_best);
        const auto expected = static_cast<uint64_t>(divides ? predicted / unit : predicted);
        const auto units = static_cast<uint64_t>(divides ? whole / unit : whole);
        return (Residual(coder, units - expected) + expected) * static_cast<uint64_t>(unit);
    }
    template <typename Coder>
    uint64_t Residual(Coder& coder, uint64_t residual) {
        const bool isNegative = static_cast<int64_t>(residual) < 0;
        const uint64_t size = isNegative ? 0 - residual : residual;
        const int length = Length(coder, std::bit_width(size));
        if (length == 0) return 0;
        const bool negative = coder.Bit(m_sign[m_lastSign], isNegative);
        m_lastSign = negative ? 1 : 0;
        const uint64_t result = Digits(coder, length, size);
        return negative ? 0 - result : result;
    }
    // The two bits after the first one are not even; what follows is noise.
    template <typename Coder>
    uint64_t Digits(Coder& coder, int length, uint64_t size) {
        uint64_t result = 1;
        int left = length - 1;
        const auto take = [&](BitModel& model) {
            --left;
            result = result << 1 | (coder.Bit(model, (size >> left & 1) != 0) ? 1 : 0);
        };
        if (left > 0) take(m_second[std::min<size_t>(static_cast<size_t>(length), 31)]);
        if (left > 0) take(m_third[result & 1]);
        if (left == 0) return result;
        return result << left | coder.Plain(left, size & ((uint64_t{1} << left) - 1));
    }
    // The number of bits, as the distance from the usual one.
    template <typename Coder>
    int Length(Coder& coder, int wanted) {
        const int usual = (m_length + 8) >> 4;
        auto& up = m_up[m_lastStep];
        auto& down = m_down[m_lastStep];
        int length = usual;
        const auto distance = [&] {
            return std::min<size_t>(static_cast<size_t>(std::abs(length - usual)), kSteps - 1);
        };
        if (length < 64 && coder.Bit(up[0], wanted > length)) {
            ++length;
            while (length < 64 && coder.Bit(up[distance()], wanted > length)) ++length;
        } else {
            while (length > 0 && coder.Bit(down[distance()], wanted < length)) --length;
        }
        m_lastStep = length > usual ? 2 : (length < usual ? 0 : 1);
        m_length += (length * 16 - m_length) / 8;
        return length;
    }
    void Learn(int64_t delta) {
        constexpr int64_t kFar = int64_t{1} << 50;
        const int64_t near = delta > kFar ? kFar : (delta < -kFar ? -kFar : delta);
        uint64_t least = UINT64_MAX;
        for (int i = 0; i < kPredictors; ++i) {
            const int64_t error = near - Predicted(i);
            m_errors[i] += static_cast<uint64_t>(error < 0 ? -error : error) - (m_errors[i] >> 4);
            if (m_errors[i] < least) {
                least = m_errors[i];
                m_best = i;
            }
        }
        m_mean += (near * 16 - m_mean) / 8;
        m_delta = near;
    }
    // A difference that the factor so far divides leaves it as it is.
    void LearnFactor(int64_t delta) {
        m_factor = std::gcd(
            m_factor, delta < 0 ? 0 - static_cast<uint64_t>(delta) : static_cast<uint64_t>(delta));
        if (m_factor >> 62 != 0) m_factor = 1;
    }

    uint64_t m_last;
    int64_t m_delta = 0;
    int64_t m_mean = 0;      // of the differences, times 16
    uint64_t m_factor = 0;   // 0: no difference yet
    bool m_divided = false;  // the last difference
    std::array<uint64_t, kPredictors> m_errors{};
    int m_best = 0;
    int m_length = 0;       // usual number of bits, times 16
    uint8_t m_history = 0;  // whether the values before were the same as theirs before
    uint8_t m_lastSign = 0;
    uint8_t m_lastStep = 1;  // less, as many or more bits than usual
    std::array<BitModel, 8> m_same;
    BitModel m_divides;
    std::array<BitModel, 2> m_sign;
    std::array<BitModel, 32> m_second;
    std::array<BitModel, 2> m_third;
    std::array<std::array<BitModel, kSteps>, 3> m_up;
    std::array<std::array<BitModel, kSteps>, 3> m_down;
};

// A column of a block after its first value: numbers, or doubles, which become numbers where a
// power of ten makes them whole.
class ColumnModel {
  public:
    ColumnModel(uint64_t first, bool isReal)
        : m_isReal(isReal),
          m_scale(isReal ? ScaleFor(first, 0) : kWhole),
          m_bits(first),
          m_number(ToNumber(first, m_scale)) {}

    // Whether the next row has a value.
    template <typename Coder>
    bool Present(Coder& coder, bool isPresent) {
        return m_wasPresent = coder.Bit(m_present[m_wasPresent ? 1 : 0], isPresent);
    }
    template <typename Coder>
    uint64_t Value(Coder& coder, uint64_t bits) {
        if (!m_isReal) return m_number.Next(coder, bits);
        const int wanted = ScaleFor(bits, m_scale);
        if (coder.Bit(m_rescale, wanted != m_scale)) {
            m_scale = static_cast<int>(coder.Plain(3, static_cast<uint64_t>(wanted)));
            m_number.Restart(ToNumber(m_bits, m_scale));
        }
        m_bits = FromNumber(m_number.Next(coder, ToNumber(bits, m_scale)), m_scale);
        return m_bits;
    }

  private:
    // 0 to 6: times this power of ten; otherwise the bits, in the order of the doubles.
    static constexpr int kBits = 7;
    static constexpr int kWhole = 8;  // not a double

    static int ScaleFor(uint64_t bits, int from);
    static uint64_t ToNumber(uint64_t bits, int scale);
    static uint64_t FromNumber(uint64_t number, int scale);

    bool m_isReal;
    bool m_wasPresent = true;
    int m_scale;
    uint64_t m_bits;
    NumberModel m_number;
    std::array<BitModel, 2> m_present;
    BitModel m_rescale;
};
