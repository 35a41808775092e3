#include "SlowHost.h"

#include <fcntl.h>
#include <linux/if.h>
#include <linux/if_tun.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

SlowHost::SlowHost(std::chrono::milliseconds delay) : _delay(delay) {
    ifreq device{};
    device.ifr_flags = IFF_TUN | IFF_NO_PI;
    if (::unshare(CLONE_NEWNET) != 0) {
        _missing = "network namespaces are not permitted here";
    } else if ((_tun = ::open("/dev/net/tun", O_RDWR | O_CLOEXEC)) < 0 ||
               ::ioctl(_tun, TUNSETIFF, &device) != 0) {
        _missing = "tunnel devices are not available here";
    } else if (std::system("ip addr add 10.77.0.1/24 dev tun0 && ip link set tun0 up") != 0) {
        _missing = "the network could not be set up";
    } else {
        _thread = std::thread([this] { answer(); });
    }
}

SlowHost::~SlowHost() {
    _done = true;
    if (_thread.joinable()) _thread.join();
    if (_tun >= 0) ::close(_tun);
}

void SlowHost::answer() {
    constexpr int kProtocol = 9, kSource = 12, kTarget = 16, kType = 20, kChecksum = 22;
    constexpr unsigned char kIcmp = 1, kEchoRequest = 8;
    unsigned char packet[2048];
    while (!_done) {
        pollfd readable{_tun, POLLIN, 0};
        if (::poll(&readable, 1, 20) <= 0) continue;
        const ssize_t size = ::read(_tun, packet, sizeof packet);
        if (size <= kChecksum || packet[kProtocol] != kIcmp || packet[kType] != kEchoRequest)
            continue;
        std::this_thread::sleep_for(_delay);
        std::swap_ranges(packet + kSource, packet + kTarget, packet + kTarget);
        packet[kType] = 0;  // echo reply; the checksum grows by what the type has lost
        const unsigned sum = packet[kChecksum] + unsigned{kEchoRequest};
        packet[kChecksum] = static_cast<unsigned char>(sum);
        if (sum > 0xFF && ++packet[kChecksum + 1] == 0) ++packet[kChecksum];
        if (::write(_tun, packet, static_cast<std::size_t>(size)) < 0) return;
    }
}
