#pragma once

#include <zlib.h>

#include <cstdint>
#include <string>

namespace android::tools::sim {

// Reads a text file line by line, plain or gzip-compressed (zlib tells them
// apart), holding one line at a time: a file of any size is read in bounded
// memory. Binary formats read its bytes instead (peek, readBytes). A line longer than the limit, a
// NUL byte, more than kMaxInflatedBytes or kMaxLines (InputFile.h), a path that is not a regular
// file, or a damaged gzip stream stops the reading with a message that names the file and the
// line.
class LineReader {
public:
    static constexpr size_t kMaxLine = 1 << 20;

    LineReader() = default;
    ~LineReader();
    LineReader(const LineReader&) = delete;
    LineReader& operator=(const LineReader&) = delete;

    // False, with *error, when the file cannot be opened. "-" is standard
    // input, named "stdin" in messages.
    bool open(const std::string& path, std::string* error);
    // The first bytes of the file (up to 64 KiB, fewer if it is shorter), to
    // tell a binary format from text before reading lines or bytes.
    const std::string& peek();
    // The next line without its end of line; false at the end or on an error.
    bool next(std::string* line);
    // Instead of lines: up to `size` bytes, 0 at the end, -1 with *error set.
    long readBytes(uint8_t* out, size_t size, std::string* error);
    // After next() returned false: empty at the end of the file, else why it stopped.
    const std::string& error() const { return mError; }
    int64_t lineNumber() const { return mLine; }
    const std::string& path() const { return mPath; }
    // "file line N: " for messages about the current line.
    std::string where() const;

private:
    bool fill();
    // Appends up to a chunk to mBuffer; the count, 0 at the end or on an error.
    size_t readChunk();
    // False, with mError, when mBuffer holds a NUL byte in [from, from + size).
    bool isText(size_t from, size_t size);

    gzFile mFile = nullptr;
    std::string mPath;
    std::string mError;
    std::string mBuffer;
    size_t mPos = 0;
    bool mEof = false;
    bool mHeadUnchecked = false; // peek() read bytes not yet checked for NUL
    int64_t mLine = 0;
    uint64_t mBytesRead = 0; // after gzip, capped at kMaxInflatedBytes
};

} // namespace android::tools::sim
