// The menu-bar application: everything `Corvane` runs when it is started
// without "--headless" or "--render-icon". Builds the real services, the
// model, the menu-bar item and the setup window, takes "corvane://" links
// from the system and from later starts (single_instance.h), and runs the
// Qt event loop until the user quits.
//
// Call once, on the main thread, from main().
#pragma once

namespace corvane {

// Returns the process's exit code: 0 after a normal quit, and also when a
// link or a second start was handed to the instance already running; 1 when
// the running instance could not be reached.
int runApplication(int argc, char** argv);

}  // namespace corvane
