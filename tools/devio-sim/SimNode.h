#pragma once

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Description.h"
#include "EventLoop.h"
#include "Outbox.h"

namespace devio_sim {

// The device node of one simulated HID device: a listening SOCK_SEQPACKET
// socket in the node directory. Each host that connects is like a process
// that opened the hidraw node: one report per message each way, and every
// input report goes to every host, as hidraw gives it to every open file.
//
// Lives on the serving thread: every member is called there, and timers
// hold it only weakly, so a node closed meanwhile sends nothing late.
class SimNode : public Outbox, public std::enable_shared_from_this<SimNode> {
public:
    enum class WriteMode {
        Normal,
        // Hosts' writes fail at once: the node stops taking output reports
        // on every connection open now or made while the mode lasts. A host
        // must reopen the node after the mode ends.
        Fail,
        // The node stops reading: writes go unanswered and, once the
        // host's socket queue is full, block.
        Stall,
    };

    SimNode(EventLoop& loop, std::string socket_path, std::vector<Collection> collections,
            Endpoint& endpoint);
    ~SimNode() override;

    bool open(std::string& why);
    // Closes every connection and removes the socket. Idempotent.
    void close();
    // Drops the hosts' connections but stays in place: the hosts see their
    // node hang up.
    void hangup();
    void setWriteMode(WriteMode mode);
    std::size_t connections() const { return connections_.size(); }

    void send(const Report& report, int delay_ms = 0) override;

    // The input report that carries `report`: the report id it came with if
    // that report is large enough, else the smallest that is, padded with
    // zeros to its size.
    static Report fit(const Report& report, const std::vector<Collection>& collections);

private:
    void acceptPending();
    void readFrom(int fd);
    void drop(int fd);
    void broadcast(const Report& report);
    void applyWriteMode(int fd);

    EventLoop& loop_;
    std::string path_;
    std::vector<Collection> collections_;
    Endpoint& endpoint_;
    int listen_fd_ = -1;
    std::set<int> connections_;
    WriteMode write_mode_ = WriteMode::Normal;
};

}  // namespace devio_sim
