// Compressed runs made and read with the step functions alone, one byte of the stream at a time: the
// yardstick for the compressed stream's own ways.
#ifndef KAL_TESTS_COMPRESS_STEP_RUN_H
#define KAL_TESTS_COMPRESS_STEP_RUN_H

#include <kal/cfile.h>

#include <gtest/gtest.h>

#include <vector>

inline scfiletag* makeCFile(SFILE* stream) {
    scfiletag* cfile = nullptr;
    EXPECT_EQ(KalMakeCFile(&cfile, stream), 0);
    return cfile;
}

class StepWriter {
public:
    explicit StepWriter(SFILE* stream) : stream_(stream) {}
    ~StepWriter() { KalDestroyWriteLZW(encoder); }
    StepWriter(const StepWriter&) = delete;
    StepWriter& operator=(const StepWriter&) = delete;

    // The bytes consumed.
    uint16_t write(const uint8_t* data, uint16_t count);
    void flush();

    TAGWRITELZW* encoder = nullptr;
    uint32_t runPos = KAL_NO_POSITION;

private:
    void renewEncoder();
    bool put(uint16_t code);
    void startWith(uint8_t byte) { encoder->currentCode = encoder->outputCode = byte; }

    SFILE* stream_;
};

class StepReader {
public:
    explicit StepReader(SFILE* stream) : stream_(stream) { KalInitReadLZW(&decoder, 256); }
    ~StepReader() { KalDestroyReadLZW(&decoder); }
    StepReader(const StepReader&) = delete;
    StepReader& operator=(const StepReader&) = delete;

    uint16_t read(uint8_t* destination, uint16_t count);

    readlzw decoder = {};
    uint32_t runPos = KAL_NO_POSITION;
    std::vector<uint8_t> pending; // last character first
    int16_t status = 0;

private:
    bool feedByte();

    SFILE* stream_;
    uint16_t completed_ = 0;
};

#endif
