#include "registration/bilinear_table.h"

void buildBilinearTable(float (*table)[10][4]) {
    for (int fy = 0; fy < 10; ++fy) {
        for (int fx = 0; fx < 10; ++fx) {
            // Integer products are exact; only the division by 100 rounds.
            table[fy][fx][0] = static_cast<float>((10 - fy) * (10 - fx)) / 100.0f;
            table[fy][fx][1] = static_cast<float>((10 - fy) * fx) / 100.0f;
            table[fy][fx][2] = static_cast<float>((10 - fx) * fy) / 100.0f;
            table[fy][fx][3] = static_cast<float>(fx * fy) / 100.0f;
        }
    }
}

void generateBilinearTbl(float (*table)[10][4]) { buildBilinearTable(table); }
