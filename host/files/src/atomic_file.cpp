#include "tavrik/atomic_file.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace tavrik {
namespace {

[[noreturn]] void fail(const std::string& what, const std::string& path) {
    throw std::system_error(errno, std::generic_category(), what + " " + path);
}

class Fd {
public:
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd() {
        if (fd_ >= 0) ::close(fd_);
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }

private:
    int fd_;
};

std::string directory_of(const std::string& path) {
    const auto slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

void write_file_atomically(const std::string& path, std::string_view content, mode_t mode, bool sync) {
    const std::string temp = path + ".new";
    Fd fd(::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode));
    if (fd.get() < 0) fail("cannot create", temp);
    // The mode of an existing temporary file (left by a killed run) is reset.
    if (::fchmod(fd.get(), mode) != 0) fail("cannot set the mode of", temp);
    for (std::size_t done = 0; done < content.size();) {
        const ssize_t n = ::write(fd.get(), content.data() + done, content.size() - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            const int saved = errno;
            ::unlink(temp.c_str());
            errno = saved;
            fail("cannot write", temp);
        }
        done += static_cast<std::size_t>(n);
    }
    if (sync && ::fsync(fd.get()) != 0) fail("cannot flush", temp);
    if (::close(fd.release()) != 0) fail("cannot write", temp);
    if (::rename(temp.c_str(), path.c_str()) != 0) {
        const int saved = errno;
        ::unlink(temp.c_str());
        errno = saved;
        fail("cannot replace", path);
    }
    if (sync) sync_directory_of(path);
}

void remove_file(const std::string& path, bool sync) {
    if (::unlink(path.c_str()) != 0) {
        if (errno == ENOENT) return;
        fail("cannot remove", path);
    }
    if (sync) sync_directory_of(path);
}

void sync_directory_of(const std::string& path) {
    const std::string dir = directory_of(path);
    Fd dfd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dfd.get() < 0 || ::fsync(dfd.get()) != 0) fail("cannot flush directory", dir);
}

std::optional<std::string> read_file(const std::string& path) {
    Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0) {
        if (errno == ENOENT) return std::nullopt;
        fail("cannot open", path);
    }
    std::string content;
    char buffer[65536];
    for (;;) {
        const ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
        if (n < 0) {
            if (errno == EINTR) continue;
            fail("cannot read", path);
        }
        if (n == 0) break;
        content.append(buffer, static_cast<std::size_t>(n));
    }
    return content;
}

void make_directories(const std::string& path) {
    for (std::size_t pos = 1; pos != std::string::npos;) {
        pos = path.find('/', pos + 1);
        const std::string part = path.substr(0, pos);
        if (part.empty()) continue;
        if (::mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) fail("cannot create directory", part);
    }
}

}  // namespace tavrik
