#include "motion/hessian.h"

void qnCalcHessian(float* g, float* h) {
    const float mixed = (((g[0] + g[8]) - g[2]) - g[6]) * 0.25f;
    h[0] = (g[1] + g[7]) - (g[4] + g[4]);
    h[3] = (g[3] + g[5]) - (g[4] + g[4]);
    h[1] = mixed;
    h[2] = mixed;
}

void qnCalcHessian(unsigned char* g, float* h) {
    const int column = g[1] + g[7] - 2 * g[4];
    const int row = g[3] + g[5] - 2 * g[4];
    const int mixed = g[0] + g[8] - g[2] - g[6];
    h[0] = static_cast<float>(column);
    h[3] = static_cast<float>(row);
    h[1] = static_cast<float>(static_cast<double>(mixed) * 0.25);
    h[2] = h[1];
}

void qnCalcHessianFromImg(unsigned char* img, int x, int y, int stride, int /*height*/, float* h) {
    const int i = y * stride + x;
    const float c = img[i];
    h[3] = (static_cast<float>(img[i - 1]) + static_cast<float>(img[i + 1])) - (c + c);
    h[0] = (static_cast<float>(img[i + stride]) + static_cast<float>(img[i + stride])) - (c + c);
    const float mixed = (((static_cast<float>(img[i - stride - 1]) + static_cast<float>(img[i + stride + 1])) -
                          static_cast<float>(img[i + stride + 1])) -
                         static_cast<float>(img[i + stride - 1])) *
                        0.25f;
    h[1] = mixed;
    h[2] = mixed;
}
