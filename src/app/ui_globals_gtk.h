#pragma once

#include <gtk/gtk.h>

#include <vector>

class DraggableWebView;
class TrafficLightButton;

// Process-wide UI objects, created once at start-up, main thread only.
extern GtkWidget* gMainWindow;
extern DraggableWebView* gWebView;
extern GtkTextView* gLog;
extern GtkWidget* gLogScroll;
extern std::vector<TrafficLightButton*> gTrafficLights;
