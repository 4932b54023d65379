// AppIcon: the application icon and the menu-bar image, drawn with QPainter
// at any pixel size so that no bitmap ships in the tree, and the
// "--render-icon" command that writes the icon to a PNG file (the macOS
// bundle's icon is made that way at build time).
//
// The drawing functions need no QGuiApplication and no display: they paint
// shapes only, never text. trayIcon() needs the application to exist.
// Drawing may happen on any thread; trayIcon() on the main thread.
#pragma once

#include <QIcon>
#include <QImage>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

namespace corvane::AppIcon {

// The largest size "--render-icon" draws: 8192² pixels are 256 MiB of
// image already, and macOS asks for 1024 at most.
inline constexpr int maxRenderSize = 8192;
inline constexpr int defaultRenderSize = 1024;

// The application icon, `size` × `size` pixels, on a transparent margin.
// A null image when `size` is not positive or the memory is not there.
QImage draw(int size);

// The menu-bar image: black on transparent, meant as a template image that
// the system tints. Null under the same conditions as draw().
QImage drawTemplate(int size);

// The icon of the menu-bar item: on macOS the template image marked as a
// mask, elsewhere the coloured icon, which reads on light and dark panels.
QIcon trayIcon();

// The application icon at the usual sizes, for windows.
QIcon windowIcon();

// An icon drawn by `draw` at whatever size it is shown, offering `sizes`;
// nothing is drawn before it is shown, and nothing is kept after.
using Drawing = QImage (*)(int size);
QIcon drawnIcon(Drawing draw, std::initializer_list<int> sizes);

// "--size": a positive base-10 integer up to maxRenderSize, digits only
// (no sign, blanks or prefix); the error's text otherwise.
struct ParsedSize {
  std::optional<int> size;
  std::string error;
};
ParsedSize parseSize(std::string_view text);

// "--render-icon PATH [--size N]": draws the icon at `sizeText` (absent: the
// default size) and writes it to `path` as PNG. Absent on success, else the
// reason, which the caller prints after "render failed: ".
std::optional<std::string> renderToFile(const std::string& path,
                                        const std::optional<std::string>& sizeText);

}  // namespace corvane::AppIcon
