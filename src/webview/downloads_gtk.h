#pragma once

#include <gtk/gtk.h>
#include <webkit2/webkit2.h>

// Every download of the context asks where to save it, in a dialog attached
// to window (which outlives the context), and logs how it ends.
void connectDownloads(WebKitWebContext* context, GtkWindow* window);
