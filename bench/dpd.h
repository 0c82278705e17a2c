// Densely packed decimal: three digits in ten bits (a declet), the coefficient encoding of decDouble and
// decQuad. Both tables are made at compile time and prove each other.
#ifndef BENCH_DPD_H
#define BENCH_DPD_H

#include <stdint.h>

#include <array>

// The declet of 0 to 999.
constexpr unsigned dpd_of(unsigned value) {
    const unsigned hund = value / 100, tens = value / 10 % 10, ones = value % 10;
    const unsigned r = hund & 1, u = tens & 1, y = ones & 1;
    const unsigned pq = hund >> 1 & 3, st = tens >> 1 & 3, wx = ones >> 1 & 3;
    // A digit of 8 or 9 needs only its low bit; the places of the others tell which digits are that large.
    switch ((hund >= 8) << 2 | (tens >= 8) << 1 | (ones >= 8)) {
        case 0: return pq << 8 | r << 7 | st << 5 | u << 4 | wx << 1 | y;
        case 1: return pq << 8 | r << 7 | st << 5 | u << 4 | 1 << 3 | 0 << 1 | y;
        case 2: return pq << 8 | r << 7 | wx << 5 | u << 4 | 1 << 3 | 1 << 1 | y;
        case 4: return wx << 8 | r << 7 | st << 5 | u << 4 | 1 << 3 | 2 << 1 | y;
        case 6: return wx << 8 | r << 7 | 0 << 5 | u << 4 | 1 << 3 | 3 << 1 | y;
        case 5: return st << 8 | r << 7 | 1 << 5 | u << 4 | 1 << 3 | 3 << 1 | y;
        case 3: return pq << 8 | r << 7 | 2 << 5 | u << 4 | 1 << 3 | 3 << 1 | y;
        default: return r << 7 | 3 << 5 | u << 4 | 1 << 3 | 3 << 1 | y;
    }
}

// The digits of many declets at once. `T` holds one declet in every ten bits, from bit 0 upwards, and `lsb`
// has the lowest bit of each set. The digits come in the same places, four bits each.
template <class T>
struct dpd_digits_t {
    T ones;
    T tens;
    T hunds;
};
template <class T>
constexpr dpd_digits_t<T> dpd_digits(T d, T lsb) {
    const T y = d & lsb, x = d >> 1 & lsb, w = d >> 2 & lsb, v = d >> 3 & lsb, u = d >> 4 & lsb,
            t = d >> 5 & lsb, s = d >> 6 & lsb, r = d >> 7 & lsb, q = d >> 8 & lsb, p = d >> 9 & lsb;
    // wx says which digit is large when v is set; wx = 3 means several, and st which.
    const T big = v & w & x, vw = v & w, vx = v & x;
    const T pq_own = ~vw | (big & s & ~t);  // p and q belong to the hundreds
    const T pq_ones = (vw & ~x) | (big & ~s & ~t);
    const T pq_tens = big & ~s & t;
    const T st_own = ~vx;  // s and t belong to the tens
    const T st_ones = vx & ~w;
    const T hund8 = vw & (~x | ~s | t);
    const T tens8 = vx & (~w | s | ~t);
    const T ones8 = v & ((~w & ~x) | (big & (s | t)));
    const T n2 = (~v & w) | (s & st_ones) | (p & pq_ones), n1 = (~v & x) | (t & st_ones) | (q & pq_ones);
    const T t2 = (s & st_own) | (p & pq_tens), t1 = (t & st_own) | (q & pq_tens);
    const T h2 = p & pq_own, h1 = q & pq_own;
    return {y | n1 << 1 | n2 << 2 | ones8 << 3, u | t1 << 1 | t2 << 2 | tens8 << 3,
            r | h1 << 1 | h2 << 2 | hund8 << 3};
}

constexpr unsigned dpd_value(unsigned declet) {
    const auto d = dpd_digits<uint32_t>(declet, 1);
    return d.hunds * 100 + d.tens * 10 + d.ones;
}

constexpr auto DPD_OF = [] {
    std::array<uint16_t, 1000> tab{};
    for (unsigned i = 0; i < 1000; i++) tab[i] = static_cast<uint16_t>(dpd_of(i));
    return tab;
}();
constexpr auto DPD_VALUE = [] {
    std::array<uint16_t, 1024> tab{};
    for (unsigned i = 0; i < 1024; i++) tab[i] = static_cast<uint16_t>(dpd_value(i));
    return tab;
}();
static_assert([] {
    for (unsigned i = 0; i < 1000; i++)
        if (DPD_VALUE[DPD_OF[i]] != i) return false;
    return DPD_OF[5] == 5 && DPD_OF[80] == 0x0a && DPD_OF[888] == 0x06e && DPD_OF[999] == 0x0ff;
}());

#endif
