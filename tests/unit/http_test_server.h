#pragma once

// A one-thread HTTP/1.1 server on 127.0.0.1 for tests: each path answers
// with a fixed reply, any other with a 404 page. It keeps the request heads.

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

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
  // A listening socket shut down ends the accept the thread waits in.
  ~HttpTestServer() {
    shutdown(fd_, SHUT_RDWR);
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
    for (int client; (client = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0; close(client)) {
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
      send(client, out.data(), out.size(), MSG_NOSIGNAL);  // blocks until all is sent or the client is gone
    }
  }

  int fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int port_ = 0;
  mutable std::mutex mutex_;
  std::map<std::string, Reply> routes_;
  std::vector<std::string> requests_;
  std::thread thread_;
};
