/// As much of an HTTP server (RFC 9112) as programs need that fetch one text: GET and HEAD, one request on
/// each connection, on the loop's one thread.
///
/// Peers may be slow or hostile.  Each connection has so long for its request, as long again for the answer,
/// a second to hang up, and so many octets for its request; when all places are taken, a newcomer gets that
/// of the oldest connection, so that those who hold places without end keep nobody out.  All who fetch the
/// same share its memory.
#pragma once

#include "Control/Socket.h"
#include "Runtime/FileDescriptor.h"
#include "Runtime/Loop.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace Monitor {

struct HttpAnswer {
    int status = 200;
    std::string_view contentType = "text/plain; charset=utf-8";
    std::shared_ptr<const std::string> body{};
};

class HttpServer {
public:
    static constexpr std::size_t connectionLimit = 64;
    static constexpr std::size_t requestLimit = 8192;
    static constexpr Runtime::Duration patience = std::chrono::seconds{10};

    /// What stands at a path, without what follows a question mark.
    using Site = std::function<HttpAnswer(std::string_view path)>;

    /// The loop must outlive the server.
    HttpServer(Runtime::FdLoop& loop, Site site);
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;
    ~HttpServer();

    /// Listens at "192.0.2.1:9120", "[2001:db8::1]:9120", or a Unix socket "/run/x/http" that the group may
    /// use, too.  Empty on success, else one line that names the place.
    std::string start(const std::string& place, const std::string& group);
    /// One line where the group could not be let in; else empty.
    [[nodiscard]] const std::string& notice() const { return notice_; }

private:
    class Connection;

    void listen();
    void accept();
    [[nodiscard]] int descriptor() const { return file_ ? file_->get() : socket_.get(); }

    Runtime::FdLoop& loop_;
    const Site site_;
    std::list<std::unique_ptr<Connection>> connections_;
    Runtime::Timer sweep_;  ///< connections end inside their own functions; what is left is dropped from here
    Runtime::Timer acceptAgain_;
    std::string notice_;
    std::unique_ptr<Control::ListeningSocket> file_;  ///< or the other one
    Runtime::FileDescriptor socket_;
    std::optional<Runtime::FdLoop::Watch> readable_;
};

}  // namespace Monitor
