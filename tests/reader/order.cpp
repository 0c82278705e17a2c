// The orders of all storage types, on stored bytes. Decimals are unpacked from their densely packed digits
// here, so that no decimal library is asked about its own encoding.
#include "reader/order.h"

#include <algorithm>
#include <cstring>

namespace reader {

namespace {

template <typename T>
T load(const std::string& bytes) {
    T v;
    memcpy(&v, bytes.data(), sizeof(T));
    return v;
}

// Three digits out of ten bits. The letters are the bits from the most significant down: a b c d e f v w x y.
int declet(unsigned bits) {
    const auto bit = [bits](int n) { return (bits >> n) & 1; };
    const unsigned abc = bits >> 7 & 7, def = bits >> 4 & 7, low = bits & 7;
    const unsigned c = bit(7), f = bit(4), y = bit(0), ab = bits >> 8 & 3, de = bits >> 5 & 3;
    unsigned d2 = abc, d1 = def, d0 = low;
    if (bit(3)) {
        switch (bits >> 1 & 3) {
            case 0: d0 = 8 + y; break;
            case 1: d1 = 8 + f, d0 = de * 2 + y; break;
            case 2: d2 = 8 + c, d0 = ab * 2 + y; break;
            default:
                d2 = de == 2 ? abc : 8 + c;
                d1 = de == 1 ? ab * 2 + f : 8 + f;
                d0 = de == 0 ? ab * 2 + y : 8 + y;
        }
    }
    return static_cast<int>(d2 * 100 + d1 * 10 + d0);
}

struct decimal_t {
    enum { FINITE, INFINITE, NAN_ } kind = FINITE;
    bool negative = false;
    std::string digits;  // no leading zeros; empty for zero
    int exponent = 0;    // of the last digit
};

decimal_t unpack(const std::string& bytes) {
    const int nbit = static_cast<int>(bytes.size()) * 8;
    const int ndeclet = nbit == 64 ? 5 : 11;
    const int nexp = nbit == 64 ? 8 : 12;
    const int bias = nbit == 64 ? 398 : 6176;
    const auto bits = [&](int at, int n) {  // n bits, the lowest of them bit `at`
        unsigned v = 0;
        for (int i = n - 1; i >= 0; i--)
            v = v * 2 +
                ((static_cast<uint8_t>(bytes[static_cast<size_t>(at + i) / 8]) >> ((at + i) % 8)) & 1);
        return v;
    };
    decimal_t d;
    d.negative = bits(nbit - 1, 1);
    const unsigned comb = bits(nbit - 6, 5);
    if (comb >= 30) {
        d.kind = comb == 30 ? decimal_t::INFINITE : decimal_t::NAN_;
        return d;
    }
    const unsigned top = comb >> 3 == 3 ? comb >> 1 & 3 : comb >> 3;
    const unsigned first = comb >> 3 == 3 ? 8 + (comb & 1) : comb & 7;
    d.exponent = static_cast<int>(top << nexp | bits(nbit - 6 - nexp, nexp)) - bias;
    d.digits = static_cast<char>('0' + first);
    for (int i = ndeclet - 1; i >= 0; i--) {
        const int three = declet(bits(i * 10, 10));
        d.digits += {static_cast<char>('0' + three / 100), static_cast<char>('0' + three / 10 % 10),
                     static_cast<char>('0' + three % 10)};
    }
    d.digits.erase(0, d.digits.find_first_not_of('0') == std::string::npos ? d.digits.size()
                                                                           : d.digits.find_first_not_of('0'));
    return d;
}

// -1, 0 or 1; a NaN equals everything.
int compare_decimal(const std::string& abytes, const std::string& bbytes) {
    const decimal_t a = unpack(abytes), b = unpack(bbytes);
    if (a.kind == decimal_t::NAN_ || b.kind == decimal_t::NAN_) return 0;
    const auto sign = [](const decimal_t& d) {
        return d.kind == decimal_t::FINITE && d.digits.empty() ? 0 : d.negative ? -1 : 1;
    };
    const int s = sign(a);
    if (s != sign(b)) return s < sign(b) ? -1 : 1;
    if (s == 0) return 0;
    if (a.kind != b.kind) return (a.kind == decimal_t::INFINITE) ? s : -s;
    if (a.kind == decimal_t::INFINITE) return 0;
    const int amag = a.exponent + static_cast<int>(a.digits.size());
    const int bmag = b.exponent + static_cast<int>(b.digits.size());
    if (amag != bmag) return amag < bmag ? -s : s;
    std::string x = a.digits, y = b.digits;
    x.resize(std::max(x.size(), y.size()), '0');
    y.resize(x.size(), '0');
    const int order = x.compare(y);
    return order == 0 ? 0 : order < 0 ? -s : s;
}

bool image_below(int32_t typ, const std::string& a, const std::string& b) {
    if ((typ & 0xffff) == CSTR) return strncmp(a.data(), b.data(), 40) < 0;
    return below(typ, a, b);
}

std::string to_image(int32_t typ, const std::string& bytes) {
    std::string image = (typ & 0xffff) == CSTR ? bytes.substr(0, 40) : bytes;
    image.resize(48, '\0');
    return image;
}

}  // namespace

int width(int32_t typ) {
    static constexpr int WIDTH[12] = {0, 1, 2, 4, 8, 16, 4, 8, 0, 0, 8, 16};
    const int32_t storage = typ & 0xffff;
    return storage <= DEC128 ? WIDTH[storage] : 0;
}

std::string null_bytes(int32_t typ) {
    std::string zero(static_cast<size_t>(width(typ)), '\0');
    if ((typ & 0xffff) == DEC64) {  // the exponent 0 is stored as 398: 0x2238 in the top two bytes
        zero[7] = 0x22;
        zero[6] = 0x38;
    } else if ((typ & 0xffff) == DEC128) {  // 6176: 0x2208
        zero[15] = 0x22;
        zero[14] = 0x08;
    }
    return zero;
}

bool below(int32_t typ, const std::string& a, const std::string& b) {
    switch (typ & 0xffff) {
        case BOOL: return load<int8_t>(a) < load<int8_t>(b);
        case INT16: return load<int16_t>(a) < load<int16_t>(b);
        case INT32: return load<int32_t>(a) < load<int32_t>(b);
        case INT64: return load<int64_t>(a) < load<int64_t>(b);
        case INT128: return load<__int128>(a) < load<__int128>(b);
        case FLOAT: return load<float>(a) < load<float>(b);
        case DOUBLE: return load<double>(a) < load<double>(b);
        case CSTR: return strcmp(a.c_str(), b.c_str()) < 0;
        case DEC64: return compare_decimal(a.substr(0, 8), b.substr(0, 8)) < 0;
        case DEC128: return compare_decimal(a.substr(0, 16), b.substr(0, 16)) < 0;
        default: return false;
    }
}

bounds_t chunk_bounds(const column_t& column, const value_t* value, size_t nrow) {
    bounds_t bounds;
    if (column.nflag || (column.typ & 0xffff) == BYTEA) return bounds;
    const std::string *lo = nullptr, *hi = nullptr;
    for (size_t r = 0; r < nrow; r++) {
        if (value[r].null) continue;
        const std::string& v = value[r].bytes;
        if (!lo) {
            lo = hi = &v;
        } else if (below(column.typ, v, *lo)) {
            lo = &v;
        } else if (below(column.typ, *hi, v)) {
            hi = &v;
        }
    }
    if (!lo) return bounds;
    bounds.has = true;
    bounds.minval = to_image(column.typ, *lo);
    bounds.maxval = to_image(column.typ, *hi);
    return bounds;
}

void merge_bounds(int32_t typ, bounds_t& file, const bounds_t& chunk) {
    if (!chunk.has) return;
    if (!file.has) {
        file = chunk;
        return;
    }
    if (image_below(typ, chunk.minval, file.minval)) file.minval = chunk.minval;
    if (image_below(typ, file.maxval, chunk.maxval)) file.maxval = chunk.maxval;
}

}  // namespace reader
