#include "mpegcore/fifo/kv_butterworth.h"

namespace mpegcore {

namespace {

// With w = tan(pi x 0.00002): b0 = b1 = w / (1 + w), a1 = (w - 1) / (w + 1). The values
// are kept as these double literals and widened; the loop's behaviour is tuned to them.
constexpr double kB = 6.282790556074308e-05;
constexpr double kA1 = -0.9998743441888785;
// 1 / (2 x b0): the internal state of a filter whose input and output have been x0
// for ever is x0 times this.
constexpr double kPreload = 7958.247144122791;

}  // namespace

kv_butterworth::kv_butterworth(long double x0) {
    Reset(x0);
}

void kv_butterworth::Reset(long double x0) {
    znum[0] = kB;
    znum[1] = kB;
    zden[0] = kA1;
    delay[0] = x0 * kPreload;
    delay[1] = x0 * kPreload;
}

long double kv_butterworth::DigFil(long double x) {
    delay[0] = delay[1];
    const long double w = x - zden[0] * delay[0];
    delay[1] = w;
    return znum[0] * delay[0] + znum[1] * w;
}

}  // namespace mpegcore
