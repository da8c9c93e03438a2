#pragma once

#include <functional>

// Installs the GTK dialogs and progress window as the updater's host.
// Call once after gtk_init. quitApp is the application's quit path: a
// failure that stops the event loop outside the start-up update loop stops
// the application's own loop, and that must run the quit hooks.
void installGtkUpdateHost(std::function<void()> quitApp);
