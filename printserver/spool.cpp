// What kvtps does with a job once a server has stored it: a line for the
// person watching, and optionally its files in a spool folder.
#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kvtps_program.h"

namespace kvtps {
namespace {

constexpr size_t kMaxFileName = 128;
constexpr int kMaxSuffix = 1000;

// Printable bytes as they are, the rest as \xNN, in double quotes.
std::string Quote(const std::string &bytes) {
    std::string out = "\"";
    for (unsigned char ch : bytes) {
        if (ch == '"' || ch == '\\') {
            out += '\\';
            out += static_cast<char>(ch);
        } else if (ch >= 0x20 && ch < 0x7f) {
            out += static_cast<char>(ch);
        } else {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02X", ch);
            out += hex;
        }
    }
    return out + "\"";
}

bool MakeDirectory(const std::string &path, std::string *error) {
    if (mkdir(path.c_str(), 0755) == 0 || errno == EEXIST) return true;
    *error = "cannot make " + path + ": " + std::strerror(errno);
    return false;
}

// Creates path (never an existing file, never through a symbolic link) with
// the bytes.  *exists: the name is taken, try another.
bool WriteNewFile(const std::string &path, const std::string &bytes, bool *exists,
                  std::string *error) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    *exists = fd < 0 && errno == EEXIST;
    if (fd < 0) {
        *error = "cannot create " + path + ": " + std::strerror(errno);
        return false;
    }
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            *error = "cannot write " + path + ": " + std::strerror(errno);
            close(fd);
            return false;
        }
        done += static_cast<size_t>(n);
    }
    if (close(fd) != 0) {
        *error = "cannot write " + path + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

}  // namespace

std::string SafeFileName(const std::string &name) {
    std::string safe;
    for (unsigned char ch : name.substr(0, kMaxFileName)) {
        bool keep = (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z') ||
                    (ch >= '0' && ch <= '9') || ch == '.' || ch == '_' || ch == '-';
        safe += keep ? static_cast<char>(ch) : '_';
    }
    if (safe.empty() || safe[0] == '.') safe.insert(safe.begin(), '_');
    return safe;
}

std::string DescribeJob(const LprJob &job) {
    std::string line = job.server + " #" + std::to_string(job.connection) + " from " + job.peer +
                       ": queue " + Quote(job.queue);
    if (!job.controlFileName.empty()) line += ", cf " + Quote(job.controlFileName);
    line += " [";
    for (size_t i = 0; i < job.controlLines.size(); ++i) {
        if (i) line += ' ';
        line += Quote(job.controlLines[i]);
    }
    line += "]";
    if (job.dataFiles.size() > 1) {
        line += ", " + std::to_string(job.dataFiles.size()) + " data files";
        for (const auto &file : job.dataFiles) line += ' ' + Quote(file.name);
    } else if (!job.dataFileName.empty()) {
        line += ", df " + Quote(job.dataFileName);
    }
    char tail[96];
    std::snprintf(tail, sizeof tail, ", %" PRIu64 " data bytes, fnv1a64 %016" PRIx64 ", ",
                  job.dataBytes, job.dataChecksum);
    line += tail;
    line += OutcomeName(job.outcome);
    if (!job.complete) line += " in step " + std::to_string(job.step) + " (" + job.error + ")";
    return line;
}

bool SpoolJob(const std::string &dir, const LprJob &job, std::vector<std::string> *written,
              std::string *error) {
    if (!job.complete) return true;  // only whole jobs are spooled
    const std::string folder = dir + "/" + SafeFileName(job.server);
    if (!MakeDirectory(dir, error) || !MakeDirectory(folder, error)) return false;
    // The control file, then each data file (none from a count-only server),
    // each under its own name: a name taken by an earlier one gets ".data".
    std::vector<std::pair<std::string, std::string>> files{{SafeFileName(job.controlFileName), job.controlFile}};
    if (job.data.size() == job.dataBytes) {
        std::vector<LprDataFile> parts = job.dataFiles;
        if (parts.size() < 2) parts = {{job.dataFileName, job.dataBytes}};
        size_t at = 0;
        for (const auto &part : parts) {
            std::string name = SafeFileName(part.name);
            while (std::any_of(files.begin(), files.end(), [&](const auto &f) { return f.first == name; })) {
                name += ".data";
            }
            files.emplace_back(name, job.data.substr(at, part.length));
            at += part.length;
        }
    }

    for (int n = 1; n <= kMaxSuffix; ++n) {
        const std::string suffix = n > 1 ? '.' + std::to_string(n) : "";
        std::vector<std::string> paths;
        bool exists = false;
        for (const auto &[name, bytes] : files) {
            paths.push_back(folder + "/" + name + suffix);
            if (!WriteNewFile(paths.back(), bytes, &exists, error)) {
                paths.pop_back();
                break;
            }
        }
        if (paths.size() == files.size()) {
            written->insert(written->end(), paths.begin(), paths.end());
            return true;
        }
        for (const auto &path : paths) unlink(path.c_str());
        if (!exists) return false;
    }
    *error = "no free name for " + files.front().first + " in " + folder;
    return false;
}

}  // namespace kvtps
