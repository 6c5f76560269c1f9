// What stands behind a handle: its settings, and the requests that it makes.
#pragma once

#include "slp/Sockets.h"

#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "slp/Request.h"
#include "slp/Slp.h"

namespace slp {

// The arguments of SLPFindAttrs, as they came.
struct Query {
    SLPHandle handle;
    const char* service;
    const char* scopes;
    const char* attributeIds;
    SLPAttrCallback callback;
    void* cookie;
    const sockaddr* to;
    unsigned version;
};

// Every member function may be called from any thread, and does what the function of Slp.h with
// its name says.
class UserAgent : public std::enable_shared_from_this<UserAgent> {
  public:
    UserAgent(std::string language, bool asynchronous)
        : language_(std::move(language)), asynchronous_(asynchronous) {}

    bool HasSockets() const { return sockets_.ok(); }
    SLPError SetUnicast(const sockaddr* to);
    SLPError AssociateInterfaces(const char* list);
    SLPError FindAttributes(const Query& query);
    void StopFind();
    void Close();

  private:
    // A request whose last call has not returned yet.
    struct Running {
        std::shared_ptr<Request> request;
        DWORD thread;           // that works on it; 0 until one does
        bool lastCall = false;  // it is being made: the handle is free for the next request
    };
    using Place = std::list<Running>::iterator;
    // A place in the list for as long as it lives.
    class Reservation {
      public:
        Reservation(UserAgent& agent, Place place) : agent_(&agent), place_(place) {}
        Reservation(Reservation&& other) noexcept
            : agent_(std::exchange(other.agent_, nullptr)), place_(other.place_) {}
        ~Reservation();
        Running& operator*() const { return *place_; }
        Running* operator->() const { return &*place_; }

      private:
        UserAgent* agent_;
        Place place_;
    };
    struct Work;

    SLPError Ask(const Query& query, Question& question) const;
    SLPError Execute(Running& running);
    SLPError ExecuteOnThread(Reservation running);

    const SocketsReference sockets_;
    const std::string language_;
    const bool asynchronous_;

    mutable std::mutex mutex_;
    std::condition_variable ended_;
    std::optional<Address> unicast_;
    std::vector<Address> interfaces_;
    std::list<Running> running_;
    bool closed_ = false;
};

}  // namespace slp
