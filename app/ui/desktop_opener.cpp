#include "app/ui/desktop_opener.h"

#include <QDesktopServices>
#include <QUrl>

namespace corvane {

void DesktopOpener::openURL(const std::string& url) {
  QDesktopServices::openUrl(QUrl(QString::fromStdString(url), QUrl::StrictMode));
}

}  // namespace corvane
