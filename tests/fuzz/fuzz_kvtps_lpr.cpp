// kvtps's side of an LPR exchange: the input arrives in pieces of the sizes
// it names, each step acknowledged as the server would, until the session
// fails or the input ends.  Steps only go forward, every byte is counted
// once, and what a session took as a whole control file is one.
#include <cstdint>
#include <cstdlib>

#include "lpr_session.h"

using kvtps::detail::LprSession;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    LprSession session(data[0] & 1);
    size_t at = 1, fed = 0;
    bool failed = false;
    while (at < size && !failed) {
        const size_t piece = std::min<size_t>(data[at] + 1, size - at - 1);
        session.Receive(reinterpret_cast<const char *>(data + at + 1), piece);
        fed += piece;
        at += 1 + piece;
        for (int guard = 0; guard < 16; ++guard) {
            const int before = session.step();
            const LprSession::Result r = session.Parse();
            if (r == LprSession::Result::Error) {
                if (session.error().empty()) std::abort();  // a failure says why
                failed = true;
                break;
            }
            if (r == LprSession::Result::NeedMore) break;
            session.Acknowledged();
            if (session.step() != before + 1) std::abort();  // a step skipped or repeated
        }
    }
    const kvtps::LprJob &job = session.job();
    if (job.totalBytes != fed || job.header.size() + session.waitingBytes() + job.dataBytes + job.ignoredBytes != fed)
        std::abort();  // a byte lost or counted twice
    // A control file taken is one: its count and 0x00, and the monitor's 0x02 or a line first.
    if (!failed && !job.controlFile.empty() &&
        (job.controlFile.size() != job.controlLength + 1 || job.controlFile.back() != 0 ||
         (job.controlFile[0] != 0x02 && static_cast<unsigned char>(job.controlFile[0]) < 0x20)))
        std::abort();
    return 0;
}
