#pragma once

#include <gtk/gtk.h>

#include <functional>
#include <string>
#include <vector>

// A modal file chooser attached to window, opened in folder. configure may
// adjust it before it shows; done runs once when it closes, with the chosen
// paths (empty when cancelled).
void showFileChooser(const char* title, GtkWindow* window, GtkFileChooserAction action, const std::string& folder,
                     const std::function<void(GtkFileChooser*)>& configure,
                     std::function<void(std::vector<std::string> paths)> done);
