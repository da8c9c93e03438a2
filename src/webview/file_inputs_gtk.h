#pragma once

#include <gtk/gtk.h>
#include <webkit2/webkit2.h>

// A page's file input opens a file chooser attached to window (which
// outlives the view), starting in the home folder.
void connectFileInputs(WebKitWebView* view, GtkWindow* window);
