#include "insurance/insurance_buffer_store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <charconv>
#include <fstream>

#include "base/private_folder.h"
#include "base/paths.h"

namespace vell::insurance {

namespace fs = std::filesystem;

namespace chunk_names {

namespace {
constexpr std::string_view kOpenPrefix = "open_";
constexpr std::string_view kSealedPrefix = "ins_";
constexpr std::string_view kSuffix = ".aac";

std::optional<std::int64_t> parseInteger(std::string_view text) {
    if (text.empty()) return std::nullopt;
    std::int64_t value = 0;
    const char* first = text.data();
    // from_chars takes no '+', which a signed integer parser would; accept it the same way.
    if (*first == '+' && text.size() > 1 && text[1] != '-') ++first;
    auto [end, error] = std::from_chars(first, text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

std::optional<std::string_view> between(std::string_view name, std::string_view prefix) {
    if (name.size() < prefix.size() + kSuffix.size()) return std::nullopt;
    if (!name.starts_with(prefix) || !name.ends_with(kSuffix)) return std::nullopt;
    return name.substr(prefix.size(), name.size() - prefix.size() - kSuffix.size());
}
}  // namespace

std::string openName(WallTime start) { return "open_" + std::to_string(millisecondsSince1970(start)) + ".aac"; }

std::string sealedName(WallTime start, WallTime end, int activityPercent) {
    return "ins_" + std::to_string(millisecondsSince1970(start)) + "_" + std::to_string(millisecondsSince1970(end)) +
           "_" + std::to_string(activityPercent) + ".aac";
}

std::optional<std::int64_t> parseOpen(const std::string& name) {
    auto middle = between(name, kOpenPrefix);
    if (!middle) return std::nullopt;
    return parseInteger(*middle);
}

std::optional<Sealed> parseSealed(const std::string& name) {
    auto middle = between(name, kSealedPrefix);
    if (!middle) return std::nullopt;
    std::vector<std::string_view> pieces;
    std::string_view rest = *middle;
    while (true) {
        auto cut = rest.find('_');
        auto piece = rest.substr(0, cut);
        if (!piece.empty()) pieces.push_back(piece);
        if (cut == std::string_view::npos) break;
        rest.remove_prefix(cut + 1);
    }
    if (pieces.size() != 3) return std::nullopt;
    auto start = parseInteger(pieces[0]), end = parseInteger(pieces[1]), activity = parseInteger(pieces[2]);
    if (!start || !end || !activity || *end < *start) return std::nullopt;
    return Sealed{*start, *end, *activity};
}

}  // namespace chunk_names

namespace {

WallTime fromMs(std::int64_t ms) { return WallTime{std::chrono::milliseconds{ms}}; }

struct Entry {
    fs::path path;
    std::string name;
    std::int64_t bytes = 0;
    std::optional<WallTime> modified;
};

std::vector<Entry> entries(const fs::path& directory) {
    std::vector<Entry> out;
    std::error_code ec;
    fs::directory_iterator it(directory, ec);
    if (ec) return out;
    for (; it != fs::directory_iterator(); it.increment(ec)) {
        if (ec) break;
        Entry e;
        e.path = it->path();
        e.name = e.path.filename().string();
        struct stat st {};
        if (::stat(e.path.c_str(), &st) == 0) {
            e.bytes = st.st_size;
            e.modified = WallTime{std::chrono::duration_cast<WallTime::duration>(
                std::chrono::seconds{st.st_mtim.tv_sec} + std::chrono::nanoseconds{st.st_mtim.tv_nsec})};
        }
        out.push_back(std::move(e));
    }
    return out;
}

std::optional<InsuranceChunk> chunkOf(const Entry& e) {
    if (auto sealed = chunk_names::parseSealed(e.name)) {
        return InsuranceChunk{e.path, fromMs(sealed->startMs), fromMs(sealed->endMs),
                              static_cast<int>(std::clamp<std::int64_t>(sealed->activity, INT32_MIN, INT32_MAX)),
                              e.bytes, false};
    }
    if (auto start = chunk_names::parseOpen(e.name)) {
        const WallTime s = fromMs(*start);
        WallTime end = e.modified && *e.modified >= s ? *e.modified : s;
        return InsuranceChunk{e.path, s, end, std::nullopt, e.bytes, true};
    }
    return std::nullopt;
}

}  // namespace

InsuranceBufferStore::InsuranceBufferStore(fs::path directory) : directory_(std::move(directory)) {}

fs::path InsuranceBufferStore::defaultDirectory() {
    static const fs::path directory = paths::insuranceDirectory();
    return directory;
}

fs::path InsuranceBufferStore::openChunkURL(WallTime start) const {
    std::error_code ec;
    files::createPrivateDirectories(directory_, ec);
    return directory_ / chunk_names::openName(start);
}

std::optional<fs::path> InsuranceBufferStore::seal(const fs::path& openURL, WallTime end, int activityPercent) const {
    auto startMs = chunk_names::parseOpen(openURL.filename().string());
    if (!startMs) return std::nullopt;
    const WallTime start = fromMs(*startMs);
    const WallTime sealedEnd = end > start ? end : start;
    const auto target = directory_ / chunk_names::sealedName(start, sealedEnd, std::clamp(activityPercent, 0, 100));
    std::error_code ec;
    fs::rename(openURL, target, ec);
    if (ec) return std::nullopt;
    return target;
}

std::vector<InsuranceChunk> InsuranceBufferStore::chunks() const {
    std::vector<InsuranceChunk> out;
    for (const auto& e : entries(directory_))
        if (auto chunk = chunkOf(e)) out.push_back(std::move(*chunk));
    std::stable_sort(out.begin(), out.end(), [](const auto& a, const auto& b) { return a.start < b.start; });
    return out;
}

std::vector<InsuranceChunk> InsuranceBufferStore::chunks(WallTime from, WallTime to) const {
    std::vector<InsuranceChunk> out;
    for (auto& c : chunks())
        if (c.end > from && c.start < to && c.bytes >= 1) out.push_back(std::move(c));
    return out;
}

std::int64_t InsuranceBufferStore::totalBytes() const {
    std::int64_t total = 0;
    for (const auto& e : entries(directory_)) total += e.bytes;
    return total;
}

void InsuranceBufferStore::prune(WallTime now, double windowSeconds, const std::optional<fs::path>& keep,
                                 std::int64_t maxBytes) const {
    const WallTime cutoff = now - std::chrono::duration_cast<WallTime::duration>(Seconds{windowSeconds});
    const WallTime future = now + std::chrono::seconds{60};
    const std::string keepName = keep ? keep->filename().string() : std::string();
    std::error_code ec;
    for (const auto& e : entries(directory_)) {
        if (keep && e.name == keepName) continue;
        auto sealed = chunk_names::parseSealed(e.name);
        if (!sealed || fromMs(sealed->endMs) <= cutoff || fromMs(sealed->startMs) > future) {
            fs::remove_all(e.path, ec);
        }
    }
    auto list = chunks();
    std::int64_t total = totalBytes();
    for (const auto& c : list) {
        if (total <= maxBytes) break;
        if (keep && c.url.filename().string() == keepName) continue;
        fs::remove(c.url, ec);
        total -= c.bytes;
    }
}

Expected<Unit, std::string> InsuranceBufferStore::concatenate(const std::vector<InsuranceChunk>& chunks,
                                                              const fs::path& destination, Creation creation) const {
    const int exclusive = creation == Creation::fresh ? O_EXCL | O_NOFOLLOW : 0;
    // Opened without blocking (a FIFO with no reader would hold the caller until someone
    // reads it) and only when it is, or becomes, a regular file.
    struct Fd {
        int fd;
        ~Fd() {
            if (fd >= 0) ::close(fd);
        }
    } out{::open(destination.c_str(), O_WRONLY | O_CREAT | O_NONBLOCK | O_CLOEXEC | O_NOCTTY | exclusive, 0600)};
    const int fd = out.fd;
    if (fd < 0) return unexpected(destination.string() + ": cannot be written (" + std::strerror(errno) + ")");
    struct stat st {};
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return unexpected(destination.string() + ": not a regular file");
    if (::ftruncate(fd, 0) != 0 || ::fcntl(fd, F_SETFL, 0) != 0) {
        return unexpected(destination.string() + ": cannot be written (" + std::strerror(errno) + ")");
    }
    auto writeAll = [fd](const char* data, std::streamsize size) {
        while (size > 0) {
            const ssize_t n = ::write(fd, data, static_cast<size_t>(size));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return false;
            data += n;
            size -= n;
        }
        return true;
    };
    for (const auto& c : chunks) {
        std::ifstream in(c.url, std::ios::binary);
        if (!in) return unexpected(c.url.string() + ": cannot be read");
        char block[64 * 1024];
        while (in.read(block, sizeof block) || in.gcount() > 0) {
            if (!writeAll(block, in.gcount())) return unexpected(destination.string() + ": cannot be written");
        }
        if (in.bad()) return unexpected(c.url.string() + ": cannot be read");
    }
    out.fd = -1;
    if (::close(fd) != 0) return unexpected(destination.string() + ": cannot be written");
    return Unit{};
}

void InsuranceBufferStore::removeAll() const {
    std::error_code ec;
    fs::remove_all(directory_, ec);
}

}  // namespace vell::insurance
