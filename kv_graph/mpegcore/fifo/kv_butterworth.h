#pragma once

namespace mpegcore {

// First-order Butterworth low-pass, the loop filter of kv_pll. Made by the bilinear
// transform with a cut-off of 0.00002 of the sampling (update) rate; computed in the
// 80-bit extended format, direct form II.
class kv_butterworth {
public:
    explicit kv_butterworth(long double x0);

    // Loads the state of a filter that has seen x0 for ever, so that the next output for
    // input x0 is x0 again (the gain at zero frequency is 1).
    void Reset(long double x0);
    // Filters one sample and returns the output.
    long double DigFil(long double x);

private:
    long double delay[2];                   // d0 the previous intermediate value, d1 the newest
    long double znum[2];                    // b0, b1
    long double zden[1];                    // a1
    [[maybe_unused]] long double m_dK = 0;  // not used by the filter
};

}  // namespace mpegcore
