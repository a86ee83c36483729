#pragma once

#include <cstdint>

#include "model/DhcpPacketInfo.h"
#include "model/PacketLinkQueue.h"
#include "platform/store/Entity.h"

namespace Ip::Helper::DhcpRelay {

using SnoopingToRelayQueueMetadata = LinkQueueMetadata;
using RelayToSnoopingQueueMetadata = LinkQueueMetadata;

// The handoff between DHCP snooping and the relay: packets snooping wants relayed,
// and relayed replies snooping must deliver on a VLAN. One instance carries DHCPv4
// ("DhcpPacketQueues"), another DHCPv6 ("Dhcp6PacketQueues").
//
// Consumers must expect a per-entry notification for an index that is no longer
// queued (another reactor, or a drain, got to it first): look the index up, ignore
// it when absent, and otherwise always dequeue the head, so packets are handled in
// arrival order whichever notification arrives.
class DhcpPacketQueues : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Ip::Helper::DhcpRelay::DhcpPacketQueues")
   using Entity::Entity;

   class Reactor : public Platform::ReactorOf<const DhcpPacketQueues> {
    public:
      // An entry was enqueued under `index`; runs inside the enqueue.
      virtual void handleSnoopingToRelayPacket(uint32_t /*index*/) {}
      virtual void handleRelayToSnoopingPacket(uint32_t /*index*/) {}
      // The queue may have changed as a whole (attach, delete-all, restore).
      virtual void handleSnoopingToRelayPacket() {}
      virtual void handleRelayToSnoopingPacket() {}

    protected:
      // Packets queued before this reactor attached are offered to it at once; a
      // consumer overriding this must call it.
      void onNotifierAttached() override {
         handleSnoopingToRelayPacket();
         handleRelayToSnoopingPacket();
      }
   };

   // --- snooping to relay -------------------------------------------------
   const PacketLinkQueue& snoopingToRelayQueue() const { return snoopingToRelay_; }
   DhcpPacketInfo snoopingToRelayQueue(uint32_t index) const {
      return snoopingToRelay_.entry(index);
   }
   uint32_t snoopingToRelayQueueEnq(const DhcpPacketInfo& info) {
      return enq(snoopingToRelay_, info, &Reactor::handleSnoopingToRelayPacket);
   }
   DhcpPacketInfo snoopingToRelayQueueDeq() { return snoopingToRelay_.deq(); }
   void snoopingToRelayQueueDel(uint32_t index) { snoopingToRelay_.del(index); }
   void snoopingToRelayQueueDelAll() {
      if (snoopingToRelay_.delAll())
         notifyQueue(&Reactor::handleSnoopingToRelayPacket);
   }
   const SnoopingToRelayQueueMetadata& snoopingToRelayQueueMetadata() const {
      return snoopingToRelay_.metadata();
   }
   void snoopingToRelayQueueMetadataIs(const SnoopingToRelayQueueMetadata& m) {
      if (snoopingToRelay_.metadataIs(m))
         notifyQueue(&Reactor::handleSnoopingToRelayPacket);
   }

   // --- relay to snooping -------------------------------------------------
   const PacketLinkQueue& relayToSnoopingQueue() const { return relayToSnooping_; }
   DhcpPacketInfo relayToSnoopingQueue(uint32_t index) const {
      return relayToSnooping_.entry(index);
   }
   uint32_t relayToSnoopingQueueEnq(const DhcpPacketInfo& info) {
      return enq(relayToSnooping_, info, &Reactor::handleRelayToSnoopingPacket);
   }
   DhcpPacketInfo relayToSnoopingQueueDeq() { return relayToSnooping_.deq(); }
   void relayToSnoopingQueueDel(uint32_t index) { relayToSnooping_.del(index); }
   void relayToSnoopingQueueDelAll() {
      if (relayToSnooping_.delAll())
         notifyQueue(&Reactor::handleRelayToSnoopingPacket);
   }
   const RelayToSnoopingQueueMetadata& relayToSnoopingQueueMetadata() const {
      return relayToSnooping_.metadata();
   }
   void relayToSnoopingQueueMetadataIs(const RelayToSnoopingQueueMetadata& m) {
      if (relayToSnooping_.metadataIs(m))
         notifyQueue(&Reactor::handleRelayToSnoopingPacket);
   }

 private:
   using EntryHandler = void (Reactor::*)(uint32_t);
   using QueueHandler = void (Reactor::*)();

   uint32_t enq(PacketLinkQueue& q, const DhcpPacketInfo& info, EntryHandler handler);
   void notifyQueue(QueueHandler handler) { notify(handler); }

   PacketLinkQueue snoopingToRelay_;
   PacketLinkQueue relayToSnooping_;
};

}  // namespace Ip::Helper::DhcpRelay
