#include "frontend/resolver/DnsResolver.h"

#include <ares.h>
#include <arpa/nameser.h>
#include <fcntl.h>
#include <netdb.h>
#include <sys/epoll.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <memory>

#include "platform/loop/EventLoop.h"
#include "platform/trace/Trace.h"

namespace Frontend {

using Platform::EventLoop;
using Platform::IpAddr;
using Platform::TimerWheel;

struct DnsResolver::Query {
   DnsResolver* resolver;
   Callback callback;
};

namespace {

// More A records than any DHCP server name has; the rest of a longer answer is ignored.
constexpr int kMaxAddresses = 32;

DnsAnswer answerOf(int status, const unsigned char* abuf, int alen) {
   DnsAnswer answer;
   if (status == ARES_SUCCESS) {
      std::array<ares_addrttl, kMaxAddresses> ttls;
      int count = kMaxAddresses;
      status = ares_parse_a_reply(abuf, alen, nullptr, ttls.data(), &count);
      if (status == ARES_SUCCESS && count > 0) {
         answer.outcome = DnsAnswer::Outcome::Addresses;
         answer.ttl = UINT32_MAX;
         for (int i = 0; i < count; ++i) {
            answer.address.insert(IpAddr::fromNetwork(ttls[i].ipaddr.s_addr));
            answer.ttl = std::min(answer.ttl, static_cast<uint32_t>(std::max(ttls[i].ttl, 0)));
         }
         return answer;
      }
      if (status == ARES_SUCCESS)
         status = ARES_ENODATA;
   }
   answer.reason = ares_strerror(status);
   // NXDOMAIN, an empty answer and a name that cannot be a DNS name never change by
   // asking again right away.
   if (status == ARES_ENOTFOUND || status == ARES_ENODATA || status == ARES_EBADNAME)
      answer.outcome = DnsAnswer::Outcome::NoSuchName;
   return answer;
}

}  // namespace

DnsResolver::DnsResolver(EventLoop& loop, TimerWheel& wheel, const Options& options)
    : loop_(loop), options_(options), timeout_(wheel, [this] { handleTimeout(); }) {
   ares_library_init(ARES_LIB_INIT_ALL);
   doOpen();
}

DnsResolver::~DnsResolver() {
   doClose();
   ares_library_cleanup();
}

void DnsResolver::doOpen() {
   openedWith_ = resolvConfStamp();
   ares_options opts{};
   opts.sock_state_cb = &DnsResolver::handleSockState;
   opts.sock_state_cb_data = this;
   opts.timeout = static_cast<int>(std::lround(options_.queryTimeout * 1000));
   opts.tries = options_.tries;
   opts.udp_port = options_.port;
   opts.tcp_port = options_.port;
   opts.resolvconf_path = const_cast<char*>(options_.resolvConf.c_str());
   int status = ares_init_options(&channel_, &opts,
                                  ARES_OPT_SOCK_STATE_CB | ARES_OPT_TIMEOUTMS | ARES_OPT_TRIES |
                                      ARES_OPT_UDP_PORT | ARES_OPT_TCP_PORT | ARES_OPT_RESOLVCONF);
   if (status != ARES_SUCCESS) {
      TRACE(0, "cannot start the DNS resolver: ", ares_strerror(status));
      channel_ = nullptr;
      return;
   }
   // Not every c-ares release marks its sockets close-on-exec; the agent's must be.
   ares_set_socket_configure_callback(
       channel_,
       [](ares_socket_t fd, int /*type*/, void* /*data*/) {
          return fcntl(fd, F_SETFD, FD_CLOEXEC);
       },
       nullptr);
   if (!options_.servers.empty()) {
      status = ares_set_servers_ports_csv(channel_, options_.servers.c_str());
      if (status != ARES_SUCCESS)
         TRACE(0, "bad DNS server list \"", options_.servers, "\": ", ares_strerror(status));
   }
}

void DnsResolver::doClose() {
   destroying_ = true;
   // The loop lets go of the sockets before c-ares closes them.
   for (int fd : fds_)
      loop_.removeFd(fd);
   fds_.clear();
   timeout_.cancel();
   if (channel_)
      ares_destroy(channel_);
   channel_ = nullptr;
   destroying_ = false;
}

DnsResolver::FileStamp DnsResolver::resolvConfStamp() const {
   struct stat st;
   if (::stat(options_.resolvConf.c_str(), &st) != 0)
      return {};
   return {st.st_dev, st.st_ino, static_cast<uint64_t>(st.st_size),
           int64_t{st.st_mtim.tv_sec} * 1'000'000'000 + st.st_mtim.tv_nsec};
}

void DnsResolver::query(const std::string& name, Callback callback) {
   // Reopened only between lookups, so that no lookup in flight is lost; the file is
   // looked at once per lookup, never per packet.
   if (options_.servers.empty() && pending_ == 0 && resolvConfStamp() != openedWith_) {
      TRACE(3, options_.resolvConf, " changed: reading it again");
      doClose();
      doOpen();
   }
   if (!channel_) {
      DnsAnswer answer;
      answer.reason = "no DNS resolver";
      callback(answer);
      return;
   }
   ++pending_;
   auto* q = new Query{this, std::move(callback)};
   ares_search(channel_, name.c_str(), ns_c_in, ns_t_a, &DnsResolver::handleQueryDone, q);
   doArmTimeout();
}

std::set<IpAddr> DnsResolver::hostsFileAddress(const std::string& name) const {
   std::set<IpAddr> address;
   hostent* host = nullptr;
   if (!channel_ || ares_gethostbyname_file(channel_, name.c_str(), AF_INET, &host) != ARES_SUCCESS)
      return address;
   for (char** a = host->h_addr_list; *a; ++a) {
      uint32_t networkOrder;
      std::memcpy(&networkOrder, *a, sizeof networkOrder);
      address.insert(IpAddr::fromNetwork(networkOrder));
   }
   ares_free_hostent(host);
   return address;
}

void DnsResolver::handleSockState(void* data, int fd, int readable, int writable) {
   auto* self = static_cast<DnsResolver*>(data);
   if (!readable && !writable) {
      self->loop_.removeFd(fd);
      self->fds_.erase(fd);
      return;
   }
   const uint32_t events = (readable ? EPOLLIN : 0u) | (writable ? EPOLLOUT : 0u);
   if (self->fds_.insert(fd).second)
      self->loop_.addFd(fd, events, [self, fd](uint32_t ev) { self->handleFd(fd, ev); });
   else
      self->loop_.modifyFd(fd, events);
}

void DnsResolver::handleQueryDone(void* arg, int status, int /*timeouts*/, unsigned char* abuf,
                                  int alen) {
   std::unique_ptr<Query> q(static_cast<Query*>(arg));
   --q->resolver->pending_;
   if (q->resolver->destroying_)
      return;
   q->callback(answerOf(status, abuf, alen));
}

void DnsResolver::handleFd(int fd, uint32_t events) {
   // An error or hang-up is reported to c-ares as readable: its read fails and it moves the
   // query on to the next server.
   const int readFd = (events & (EPOLLIN | EPOLLERR | EPOLLHUP)) ? fd : ARES_SOCKET_BAD;
   const int writeFd = (events & EPOLLOUT) ? fd : ARES_SOCKET_BAD;
   ares_process_fd(channel_, readFd, writeFd);
   doArmTimeout();
}

void DnsResolver::handleTimeout() {
   ares_process_fd(channel_, ARES_SOCKET_BAD, ARES_SOCKET_BAD);
   doArmTimeout();
}

void DnsResolver::doArmTimeout() {
   timeval tv;
   if (ares_timeout(channel_, nullptr, &tv))
      timeout_.armIn(static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) / 1e6);
   else
      timeout_.cancel();
}

}  // namespace Frontend
