#define FUSE_USE_VERSION 31

#include "CuseNode.h"

#include "platform/ChipDevice.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fuse3/cuse_lowlevel.h>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/uio.h>

namespace Kestrune::Sim {

namespace {

std::string octal(unsigned value) {
    char text[16];
    std::snprintf(text, sizeof text, "0%o", value);
    return text;
}

} // namespace

// The CUSE callbacks, each handing its request to the node it was registered for.
struct CuseCalls {
    static CuseNode& node(fuse_req_t req) {
        return *static_cast<CuseNode*>(fuse_req_userdata(req));
    }

    static void initDone(void* userdata) { static_cast<CuseNode*>(userdata)->ready_ = true; }

    static void open(fuse_req_t req, fuse_file_info* fi) {
        const std::string refusal = node(req).openRefusal(fi->flags);
        if (!refusal.empty()) {
            node(req).chip_.log("refused open of " + std::string(node(req).path()) + ": " +
                                refusal);
            fuse_reply_err(req, EACCES);
            return;
        }
        fi->direct_io = 1;
        fi->nonseekable = 1;
        fuse_reply_open(req, fi);
    }

    static void release(fuse_req_t req, fuse_file_info*) { fuse_reply_err(req, 0); }

    static void ioctl(fuse_req_t req, int cmd, void* arg, fuse_file_info*, unsigned, const void* in,
                      std::size_t inSize, std::size_t) {
        const auto number = static_cast<unsigned long>(static_cast<unsigned>(cmd));
        std::size_t wanted = 0;
        const int result = node(req).request(number, in, inSize, &wanted, fuse_req_ctx(req)->uid);
        if (wanted > inSize) {
            // The kernel copies only what the device asks for: ask for the record's bytes.
            const iovec from{arg, wanted};
            fuse_reply_ioctl_retry(req, &from, 1, nullptr, 0);
        } else if (result < 0) {
            fuse_reply_err(req, errno);
        } else {
            fuse_reply_ioctl(req, 0, nullptr, 0);
        }
    }
};

CuseNode::CuseNode(Chip& chip, Kind kind) : chip_(chip), kind_(kind) {
    // Registered under a folder of its own: where /dev is the kernel's devtmpfs it makes the
    // node under this name (mode 0600), and the chip's own paths are the restore's to make.
    const std::string devname =
        std::string("DEVNAME=kestrune-chip/") + (kind == Kind::fabric ? "fabric" : "kovana-bde");
    const char* info[] = {devname.c_str()};
    cuse_info device{};
    device.dev_major = deviceMajor();
    device.dev_minor = 0;
    device.dev_info_argc = 1;
    device.dev_info_argv = info;
    // The chip's requests are not encoded with _IOC: the device says how much to copy.
    device.flags = CUSE_UNRESTRICTED_IOCTL;
    cuse_lowlevel_ops calls{};
    calls.init_done = CuseCalls::initDone;
    calls.open = CuseCalls::open;
    calls.release = CuseCalls::release;
    calls.ioctl = CuseCalls::ioctl;
    // Foreground and one thread: the daemon runs its own loop over both devices.
    const char* argv[] = {"kestrune-chip-daemon", "-f", "-s"};
    int multithreaded = 0;
    session_ =
        cuse_lowlevel_setup(3, const_cast<char**>(argv), &device, &calls, &multithreaded, this);
    if (session_ == nullptr) {
        throw std::runtime_error(std::string("cannot register ") + path() +
                                 " through /dev/cuse (is the cuse module loaded?)");
    }
}

CuseNode::~CuseNode() {
    if (session_ != nullptr) {
        cuse_lowlevel_teardown(session_);
    }
}

const char* CuseNode::path() const {
    return kind_ == Kind::fabric ? fabricDevicePath : bdeDevicePath;
}

unsigned CuseNode::deviceMajor() const {
    return kind_ == Kind::fabric ? fabricDeviceMajor : bdeDeviceMajor;
}

int CuseNode::fd() const {
    return fuse_session_fd(session_);
}

bool CuseNode::handle() {
    fuse_buf buffer{};
    const int received = fuse_session_receive_buf(session_, &buffer);
    if (received > 0) {
        fuse_session_process_buf(session_, &buffer);
    }
    std::free(buffer.mem);
    return (received > 0 || received == -EINTR || received == -EAGAIN) &&
           fuse_session_exited(session_) == 0;
}

std::string CuseNode::openRefusal(int flags) {
    ++opens_;
    if ((flags & O_ACCMODE) != O_RDWR) {
        return "not opened read-write";
    }
    if (kind_ == Kind::bde && (flags & O_SYNC) != O_SYNC) {
        return "not opened with O_SYNC";
    }
    if (kind_ == Kind::bde && opens_ > 1 && chip_.refuses("bde-reopen")) {
        return "told to take one open only";
    }
    // The node the open reached (through a link too, as a kernel driver sees it) must be what
    // the platform's bring-up makes: a character device, 0666, under the driver's numbers.
    struct stat node {};
    if (::stat(path(), &node) != 0) {
        return std::string("no node: ") + std::strerror(errno);
    }
    if (!S_ISCHR(node.st_mode)) {
        return "the node is not a character device";
    }
    if ((node.st_mode & 07777) != 0666) {
        return "the node has mode " + octal(node.st_mode & 07777) + ", not 0666";
    }
    if (::major(node.st_rdev) != deviceMajor() || ::minor(node.st_rdev) != 0) {
        return "the node is " + std::to_string(::major(node.st_rdev)) + ":" +
               std::to_string(::minor(node.st_rdev)) + ", not " + std::to_string(deviceMajor()) +
               ":0";
    }
    return {};
}

int CuseNode::request(unsigned long number, const void* record, std::size_t size,
                      std::size_t* wanted, unsigned client) {
    return chip_.deviceRequest(kind_ == Kind::bde, number,
                               static_cast<const unsigned char*>(record), size, wanted, client);
}

} // namespace Kestrune::Sim
