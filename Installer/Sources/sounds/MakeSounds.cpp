// Writes the installer's own sounds as WAV files (44.1 kHz, 16-bit, mono)
// into the folder given as the only argument:
//   Done.wav            a short two-note chime for a finished installation
//   SoundOfSilence.wav  half a second of digital silence, played to keep the
//                       audio output awake
// The sounds are computed, not recorded, so the build makes them itself and
// they come out the same on every run.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <numbers>
#include <string>
#include <vector>

namespace {

constexpr int kSampleRate = 44100;

void putLittleEndian(std::string &out, uint32_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) out.push_back(static_cast<char>((value >> (8 * i)) & 0xff));
}

bool writeWav(const std::string &path, const std::vector<int16_t> &samples) {
    const uint32_t dataBytes = static_cast<uint32_t>(samples.size() * sizeof(int16_t));
    std::string file = "RIFF";
    putLittleEndian(file, 36 + dataBytes, 4);
    file += "WAVEfmt ";
    putLittleEndian(file, 16, 4);               // format chunk size
    putLittleEndian(file, 1, 2);                // PCM
    putLittleEndian(file, 1, 2);                // mono
    putLittleEndian(file, kSampleRate, 4);      // frames per second
    putLittleEndian(file, kSampleRate * 2, 4);  // bytes per second
    putLittleEndian(file, 2, 2);                // bytes per frame
    putLittleEndian(file, 16, 2);               // bits per sample
    file += "data";
    putLittleEndian(file, dataBytes, 4);
    for (int16_t sample : samples) putLittleEndian(file, static_cast<uint16_t>(sample), 2);

    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(file.data(), static_cast<std::streamsize>(file.size()));
    return static_cast<bool>(out);
}

// A bell-like note: a sine with a quieter octave partial, struck at `start`
// and dying away exponentially.
double note(double t, double start, double frequency) {
    if (t < start) return 0.0;
    const double age = t - start;
    const double envelope = std::exp(-age * 5.0);
    const double phase = 2.0 * std::numbers::pi * frequency * age;
    return envelope * (std::sin(phase) + 0.25 * std::sin(2.0 * phase));
}

std::vector<int16_t> chime() {
    constexpr double kSeconds = 0.6;
    constexpr double kFadeIn = 0.005;
    constexpr double kFadeOut = 0.08;
    constexpr double kPeak = 0.5;  // -6 dBFS
    const int frames = static_cast<int>(kSeconds * kSampleRate);

    // A rising major third (E6, then G#6) overlapping, so it is heard as one
    // sound: the first note still rings when the second is struck.
    std::vector<double> wave(frames);
    double loudest = 0.0;
    for (int i = 0; i < frames; ++i) {
        const double t = static_cast<double>(i) / kSampleRate;
        double value = note(t, 0.0, 1318.51) + note(t, 0.15, 1661.22);
        // Short fades keep the ends free of clicks.
        if (t < kFadeIn) value *= t / kFadeIn;
        if (t > kSeconds - kFadeOut) value *= (kSeconds - t) / kFadeOut;
        wave[i] = value;
        loudest = std::max(loudest, std::fabs(value));
    }
    std::vector<int16_t> samples(frames);
    for (int i = 0; i < frames; ++i)
        samples[i] = static_cast<int16_t>(std::lround(wave[i] / loudest * kPeak * 32767.0));
    return samples;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s output-folder\n", argv[0]);
        return 2;
    }
    const std::string folder = argv[1];
    const bool written =
        writeWav(folder + "/Done.wav", chime()) &&
        writeWav(folder + "/SoundOfSilence.wav", std::vector<int16_t>(kSampleRate / 2, 0));
    if (!written) {
        std::fprintf(stderr, "%s: cannot write the sounds into %s\n", argv[0], folder.c_str());
        return 1;
    }
    return 0;
}
