// What every fuzz target shares: a fresh table per input, the table's
// invariants checked after each step, and datagrams cut from the input into
// buffers of exactly their length, so that a read past one is caught.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "availps.h"

namespace kvtfuzz {

[[noreturn]] inline void Broken(const char *what) {
    std::fprintf(stderr, "invariant broken: %s\n", what);
    std::abort();
}

// The table a search fills (the searches' own, as each search has one) and
// the monitor's AvailPS (which the list file fills).
inline AvailPSTable Table;

inline void ClearTable() {
    std::memset(&Table, 0, sizeof Table);
    std::memset(AvailPS, 0, sizeof AvailPS);
    TotalPrintServer = 0;
}

// Distinct names "#0", "#1", ... in the first count records of both.
inline void FillTable(int count) {
    for (int i = 0; i < count && i < AVAILPS_RECORDS; ++i) {
        for (WCHAR *name : {Table.Records[i].Name, AvailPS[i].Name}) {
            name[0] = '#';
            name[1] = static_cast<WCHAR>('0' + i / 10);
            name[2] = static_cast<WCHAR>('0' + i % 10);
            name[3] = 0;
        }
        Table.Count = TotalPrintServer = i + 1;
    }
}

inline int NameLength(const WCHAR *name, int room) {
    for (int i = 0; i < room; ++i)
        if (name[i] == 0) return i;
    Broken("a name without its terminator");
}

// In both tables, the count in range and every used name terminated inside its record.
inline void CheckTable() {
    if (TotalPrintServer < 0 || TotalPrintServer > AVAILPS_RECORDS) Broken("TotalPrintServer out of range");
    if (Table.Count < 0 || Table.Count > AVAILPS_RECORDS) Broken("a search's count out of range");
    for (int i = 0; i < TotalPrintServer; ++i) NameLength(AvailPS[i].Name, AVAILPS_NAME_CHARS);
    for (int i = 0; i < Table.Count; ++i) NameLength(Table.Records[i].Name, AVAILPS_NAME_CHARS);
}

// Cuts the input into pieces: two bytes of length (at most maxPiece), then
// that many bytes, or what is left.
class Pieces {
public:
    Pieces(const uint8_t *data, size_t size) : data_(data), size_(size) {}
    bool Next(std::vector<uint8_t> *piece, size_t maxPiece) {
        if (at_ + 2 > size_) return false;
        size_t want = (data_[at_] | (data_[at_ + 1] << 8)) % (maxPiece + 1);
        at_ += 2;
        size_t n = want < size_ - at_ ? want : size_ - at_;
        piece->assign(data_ + at_, data_ + at_ + n);
        at_ += n;
        return true;
    }

private:
    const uint8_t *data_;
    size_t size_;
    size_t at_ = 0;
};

// A piece as a buffer of its own, so that a read past its end is a read past
// a heap block (std::vector may hold spare room behind its size).
struct Exact {
    explicit Exact(const std::vector<uint8_t> &piece)
        : size(static_cast<int>(piece.size())), bytes(static_cast<BYTE *>(std::malloc(piece.size() + (piece.empty() ? 1 : 0)))) {
        if (!piece.empty()) std::memcpy(bytes, piece.data(), piece.size());
    }
    ~Exact() { std::free(bytes); }
    Exact(const Exact &) = delete;
    Exact &operator=(const Exact &) = delete;
    int size;
    BYTE *bytes;
};

}  // namespace kvtfuzz
