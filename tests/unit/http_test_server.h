#pragma once

// A one-thread HTTP/1.1 server on 127.0.0.1 for tests: each path answers
// with a fixed status and body, with or without a Content-Length, and
// optionally a Location. It keeps the request heads it got.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class HttpTestServer {
 public:
  struct Reply {
    int status = 200;
    std::string body;
    bool sendLength = true;  // false: the body ends when the connection closes
    std::string location;    // sent as the Location header when not empty
  };

  HttpTestServer() {
    sockaddr_in addr{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t len = sizeof addr;
    bind(fd_, reinterpret_cast<sockaddr*>(&addr), len);
    listen(fd_, 16);
    getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len);
    port_ = ntohs(addr.sin_port);
    thread_ = std::thread([this] { serve(); });
  }
  ~HttpTestServer() {
    stop_ = true;
    thread_.join();
    close(fd_);
  }

  std::string url(const std::string& path) const { return "http://127.0.0.1:" + std::to_string(port_) + path; }
  void route(const std::string& path, Reply reply) {
    std::lock_guard lock(mutex_);
    routes_[path] = std::move(reply);
  }
  std::vector<std::string> requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
  }

 private:
  void serve() {
    while (!stop_) {
      pollfd p{fd_, POLLIN, 0};
      int client = poll(&p, 1, 50) > 0 ? accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC) : -1;
      if (client < 0) continue;
      std::string head;
      char buf[4096];
      for (ssize_t n; head.find("\r\n\r\n") == std::string::npos && (n = read(client, buf, sizeof buf)) > 0;)
        head.append(buf, static_cast<size_t>(n));
      const size_t start = head.find(' ') + 1;
      Reply reply{404, "<html>no such page</html>"};
      {
        std::lock_guard lock(mutex_);
        requests_.push_back(head);
        if (auto it = routes_.find(head.substr(start, head.find(' ', start) - start)); it != routes_.end())
          reply = it->second;
      }
      std::string out = "HTTP/1.1 " + std::to_string(reply.status) + " X\r\nConnection: close\r\n";
      if (!reply.location.empty()) out += "Location: " + reply.location + "\r\n";
      if (reply.sendLength) out += "Content-Length: " + std::to_string(reply.body.size()) + "\r\n";
      out += "\r\n" + reply.body;
      for (ssize_t sent = 0, n = 0; sent < static_cast<ssize_t>(out.size()); sent += n)
        if ((n = send(client, out.data() + sent, out.size() - sent, MSG_NOSIGNAL)) <= 0) break;
      close(client);
    }
  }

  int fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int port_ = 0;
  std::atomic<bool> stop_{false};
  mutable std::mutex mutex_;
  std::map<std::string, Reply> routes_;
  std::vector<std::string> requests_;
  std::thread thread_;
};
