#include "codec/CaptureFilter.h"

#include <cstddef>
#include <cstdint>

#include "codec/Frame.h"
#include "platform/base/Assert.h"

namespace Codec {

namespace {

constexpr uint16_t kDhcpServerPort = 67;
constexpr uint16_t kDhcpClientPort = 68;
constexpr uint16_t kDhcpv6ClientPort = 546;
constexpr uint16_t kDhcpv6ServerPort = 547;
constexpr uint32_t kUntaggedL3 = EthLayout::header;
constexpr uint32_t kTaggedL3 = EthLayout::header + EthLayout::vlanTag;
// The whole frame: the kernel caps the snapshot at the frame's length.
constexpr uint32_t kAcceptWhole = 0x40000;

// Jump targets of the capture filter, resolved once the program is laid out. `next` is the
// following instruction.
enum Label : uint8_t {
   next,
   accept,
   reject,
   tagged,
   ipv4Untagged,
   ipv6Untagged,
   ipv4Tagged,
   ipv6Tagged,
   labelCount
};

// Classic BPF jumps are forward offsets of at most 255 instructions; writing them as labels
// keeps the program readable and the offsets right when it changes.
class FilterBuilder {
 public:
   void place(Label label) { at_[label] = code_.size(); }
   void stmt(uint16_t code, uint32_t k) { code_.push_back(BPF_STMT(code, k)); }
   void jump(uint16_t code, uint32_t k, Label ifTrue, Label ifFalse) {
      fixups_.push_back({code_.size(), ifTrue, ifFalse});
      code_.push_back(BPF_JUMP(code, k, 0, 0));
   }
   std::vector<sock_filter> finish() {
      for (const Fixup& f : fixups_) {
         code_[f.at].jt = offset(f.at, f.ifTrue);
         code_[f.at].jf = offset(f.at, f.ifFalse);
      }
      return std::move(code_);
   }

 private:
   struct Fixup {
      size_t at;
      Label ifTrue;
      Label ifFalse;
   };

   uint8_t offset(size_t from, Label label) const {
      if (label == next)
         return 0;
      const size_t to = at_[label];
      PLATFORM_ASSERT(to > from && to - from - 1 <= 255, "capture filter jump out of range");
      return static_cast<uint8_t>(to - from - 1);
   }

   std::vector<sock_filter> code_;
   std::vector<Fixup> fixups_;
   size_t at_[labelCount] = {};
};

// Accepts the frame when the 16-bit word loaded by `load` at `udp` (source port), or the one
// after it (destination port), is one of two ports.
void emitPortPair(FilterBuilder& b, uint16_t load, uint32_t udp, uint16_t portA, uint16_t portB) {
   for (uint32_t off : {udp + UdpLayout::srcPort, udp + UdpLayout::dstPort}) {
      b.stmt(load, off);
      b.jump(BPF_JMP | BPF_JEQ | BPF_K, portA, accept, next);
      b.jump(BPF_JMP | BPF_JEQ | BPF_K, portB, accept,
             off == udp + UdpLayout::srcPort ? next : reject);
   }
}

// IPv4 header at `l3`: UDP, not a later fragment (which carries no UDP header), port 67 or
// 68 at either end. The header's length comes from its IHL, so options are allowed.
void emitIpv4(FilterBuilder& b, uint32_t l3) {
   b.stmt(BPF_LD | BPF_B | BPF_ABS, l3 + Ipv4Layout::protocol);
   b.jump(BPF_JMP | BPF_JEQ | BPF_K, kIpProtoUdp, next, reject);
   b.stmt(BPF_LD | BPF_H | BPF_ABS, l3 + Ipv4Layout::fragment);
   b.jump(BPF_JMP | BPF_JSET | BPF_K, Ipv4Layout::fragmentOffset, reject, next);
   b.stmt(BPF_LDX | BPF_B | BPF_MSH, l3 + Ipv4Layout::versionIhl);
   emitPortPair(b, BPF_LD | BPF_H | BPF_IND, l3, kDhcpServerPort, kDhcpClientPort);
}

// IPv6 header at `l3` directly followed by UDP, port 546 or 547 at either end. DHCPv6
// messages carry no extension headers.
void emitIpv6(FilterBuilder& b, uint32_t l3) {
   b.stmt(BPF_LD | BPF_B | BPF_ABS, l3 + Ipv6Layout::nextHeader);
   b.jump(BPF_JMP | BPF_JEQ | BPF_K, kIpProtoUdp, next, reject);
   emitPortPair(b, BPF_LD | BPF_H | BPF_ABS, l3 + Ipv6Layout::header, kDhcpv6ClientPort,
                kDhcpv6ServerPort);
}

}  // namespace

// The filter sees the frame as the socket will: a tag the kernel took off into the
// packet's metadata is not in the data, so such a frame looks untagged here. A tag still in
// the data moves the IP header on by the tag's size.
std::vector<sock_filter> dhcpCaptureFilter() {
   FilterBuilder b;
   b.stmt(BPF_LD | BPF_H | BPF_ABS, EthLayout::type);
   b.jump(BPF_JMP | BPF_JEQ | BPF_K, EthLayout::typeVlan, tagged, next);
   b.jump(BPF_JMP | BPF_JEQ | BPF_K, EthLayout::typeIpv4, ipv4Untagged, next);
   b.jump(BPF_JMP | BPF_JEQ | BPF_K, EthLayout::typeIpv6, ipv6Untagged, reject);
   b.place(tagged);
   b.stmt(BPF_LD | BPF_H | BPF_ABS, EthLayout::type + EthLayout::vlanTag);
   b.jump(BPF_JMP | BPF_JEQ | BPF_K, EthLayout::typeIpv4, ipv4Tagged, next);
   b.jump(BPF_JMP | BPF_JEQ | BPF_K, EthLayout::typeIpv6, ipv6Tagged, reject);
   b.place(ipv4Untagged);
   emitIpv4(b, kUntaggedL3);
   b.place(ipv6Untagged);
   emitIpv6(b, kUntaggedL3);
   b.place(ipv4Tagged);
   emitIpv4(b, kTaggedL3);
   b.place(ipv6Tagged);
   emitIpv6(b, kTaggedL3);
   b.place(accept);
   b.stmt(BPF_RET | BPF_K, kAcceptWhole);
   b.place(reject);
   b.stmt(BPF_RET | BPF_K, 0);
   return b.finish();
}

}  // namespace Codec
