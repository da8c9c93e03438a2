#pragma once

#include <string>
#include <vector>

// The desktop's doors out of the sandbox: the session bus (through which
// `systemd-run --user` starts anything, unconfined), the systemd user
// manager's own socket, the accessibility bus and the display servers
// (which let a command type into any window, a terminal included). They
// are covered inside the sandbox; SSH and GPG agent sockets are not.

struct DesktopDoors {
  std::vector<std::string> sockets;  // covered with an empty file
  std::vector<std::string> folders;  // covered with an empty read-only folder
};

// The socket paths named by a D-Bus address ("unix:path=/run/user/1000/bus"),
// unescaped. Abstract sockets have no path: only a network namespace of the
// command's own closes those.
std::vector<std::string> busSocketPaths(const std::string& address);

// The doors that exist on this machine for the given runtime folder
// ($XDG_RUNTIME_DIR) and session bus address.
DesktopDoors findDesktopDoors(const std::string& runtimeDir, const std::string& busAddress);

// Environment variables that point a command at one of the doors.
inline constexpr const char* kDesktopVariables[] = {"DBUS_SESSION_BUS_ADDRESS", "DISPLAY", "WAYLAND_DISPLAY",
                                                    "WAYLAND_SOCKET", "XAUTHORITY", "AT_SPI_BUS_ADDRESS"};
