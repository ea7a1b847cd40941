/* A host in plain C, built against an installed Tarnlow: one impulse through the 4x12. */
#include <math.h>
#include <stdio.h>
#include <tarnlow.h>

int main(void)
{
    float buffer[4800] = {0.0f};
    int32_t sounding = -1;
    int32_t channels = 0;
    double energy = 0.0;
    void* instance = CreateInstanceU();
    if (instance == NULL) return 1;
    if (SetSampleRateU(instance, 48000) != 1) return 2;
    SetParameterA(instance, 0, 2.0f);
    buffer[0] = 1.0f;
    if (CalcA(instance, 4800, buffer, NULL, NULL, NULL, NULL, &sounding) != 0) return 3;
    for (int n = 0; n < 4800; ++n) {
        if (!isfinite(buffer[n])) return 4;
        energy += (double)buffer[n] * buffer[n];
    }
    DestroyInstanceU(instance);
    if (!(energy > 0.0) || (sounding != 0 && sounding != 1)) return 5;
    if (GetPlugInfoU(3, &channels, 4) != 1 || channels != 2) return 6;
    printf("impulse energy %.4f\n", energy);
    return 0;
}
