#pragma once

// A one-thread HTTP/1.1 server on 127.0.0.1 for tests: each path answers
// with a fixed status and body, with or without a Content-Length, and
// optionally a Location. It keeps the request heads so tests can check
// what was sent.

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
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    listen(fd_, 16);
    socklen_t len = sizeof addr;
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
      if (poll(&p, 1, 50) <= 0) continue;
      int client = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
      if (client < 0) continue;
      std::string head;
      char buf[4096];
      while (head.find("\r\n\r\n") == std::string::npos) {
        ssize_t n = read(client, buf, sizeof buf);
        if (n <= 0) break;
        head.append(buf, static_cast<size_t>(n));
      }
      std::string path = head.substr(head.find(' ') + 1);
      path = path.substr(0, path.find(' '));
      Reply reply{404, "<html>no such page</html>"};
      {
        std::lock_guard lock(mutex_);
        requests_.push_back(head);
        if (auto it = routes_.find(path); it != routes_.end()) reply = it->second;
      }
      std::string out = "HTTP/1.1 " + std::to_string(reply.status) + " X\r\nConnection: close\r\n";
      if (!reply.location.empty()) out += "Location: " + reply.location + "\r\n";
      if (reply.sendLength) out += "Content-Length: " + std::to_string(reply.body.size()) + "\r\n";
      out += "\r\n" + reply.body;
      for (size_t sent = 0; sent < out.size();) {
        ssize_t n = send(client, out.data() + sent, out.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) break;
        sent += static_cast<size_t>(n);
      }
      close(client);
    }
  }

  int fd_ = -1;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  mutable std::mutex mutex_;
  std::map<std::string, Reply> routes_;
  std::vector<std::string> requests_;
  std::thread thread_;
};
