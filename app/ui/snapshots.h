// Snapshots: "--snapshot-setup DIR" — pictures of the setup window's screens
// in their important states and of the menu, rendered with the model in
// preview mode (no probes, no network, no token store, a sample account) and
// written into DIR as PNG files. The README's pictures come from here.
//
// Call on the main thread of a running QApplication; any platform works,
// the offscreen one included.
#pragma once

#include <QString>
#include <QStringList>

namespace corvane {

// Renders every picture into `dir` (created if missing), prints "screenshots
// to " + dir and returns 0; on a failure prints the reason to the error
// output and returns 1.
int snapshotSetup(const QString& dir);

// The names of the files snapshotSetup writes, in order.
QStringList snapshotNames();

}  // namespace corvane
