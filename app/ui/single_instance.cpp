#include "app/ui/single_instance.h"

#include <sys/stat.h>
#include <unistd.h>

#include <QDeadlineTimer>
#include <QDir>
#include <QLocalSocket>
#include <QThread>
#include <cerrno>
#include <cstring>

namespace corvane {
namespace {

// The conversation on the socket, one line each: "open <url>" per link, or
// "reopen" when there is none, then "end". The instance answers "ok" once it
// has taken them, so the sender never exits before its links arrived.
constexpr char kOpen[] = "open ";
constexpr char kReopen[] = "reopen";
constexpr char kEnd[] = "end";
constexpr char kAnswer[] = "ok\n";

QString userTag() { return QString::number(::getuid()); }

// A private folder of ours, or an error: someone else's folder at that path
// could hold a socket of theirs that would receive our links.
bool ensurePrivateFolder(const QString& path, QString* error) {
  const QByteArray name = QFile::encodeName(path);
  if (::mkdir(name.constData(), 0700) != 0 && errno != EEXIST) {
    *error = "can't create " + path + ": " + QString::fromLocal8Bit(std::strerror(errno));
    return false;
  }
  struct stat info {};
  if (::lstat(name.constData(), &info) != 0 || !S_ISDIR(info.st_mode) ||
      info.st_uid != ::getuid() || (info.st_mode & 077) != 0) {
    *error = path + " is not a private folder of this user";
    return false;
  }
  return true;
}

}  // namespace

std::optional<QString> SingleInstance::defaultDirectory(const UserDirectories::GetEnv& getenv,
                                                        QString* error) {
  if (const char* runtime = getenv("XDG_RUNTIME_DIR"); runtime != nullptr && runtime[0] == '/') {
    return QFile::decodeName(runtime);
  }
  const QString folder = QDir::temp().filePath("corvane-" + userTag());
  if (!ensurePrivateFolder(folder, error)) return std::nullopt;
  return folder;
}

SingleInstance::SingleInstance(const QString& directory, QObject* parent)
    : QObject(parent),
      socketPath_(QDir(directory).filePath("corvane-" + userTag() + ".socket")),
      lock_(QDir(directory).filePath("corvane-" + userTag() + ".lock")) {
  // Held for as long as the application runs: never stale by age, only
  // when the process that wrote it is gone.
  lock_.setStaleLockTime(0);
  connect(&server_, &QLocalServer::newConnection, this, [this] {
    while (QLocalSocket* client = server_.nextPendingConnection()) serve(client);
  });
}

SingleInstance::~SingleInstance() {
  server_.close();
  if (lock_.isLocked()) lock_.unlock();
}

SingleInstance::Role SingleInstance::start(const QStringList& urls, int answerTimeoutMs) {
  if (lock_.tryLock(0)) return listen() ? Role::primary : Role::unavailable;
  if (lock_.error() != QLockFile::LockFailedError) {
    error_ = "can't create the lock file beside " + socketPath_;
    return Role::unavailable;
  }
  return handOver(urls, answerTimeoutMs) ? Role::handedOver : Role::failed;
}

bool SingleInstance::listen() {
  // We hold the lock, so a socket file left here belongs to a process that
  // is gone.
  QLocalServer::removeServer(socketPath_);
  server_.setSocketOptions(QLocalServer::UserAccessOption);
  if (!server_.listen(socketPath_)) {
    error_ = "can't listen on " + socketPath_ + ": " + server_.errorString();
    lock_.unlock();
    return false;
  }
  return true;
}

bool SingleInstance::handOver(const QStringList& urls, int answerTimeoutMs) {
  QByteArray message;
  for (const QString& url : urls) message += kOpen + url.toUtf8() + '\n';
  if (urls.isEmpty()) message += QByteArray(kReopen) + '\n';
  message += QByteArray(kEnd) + '\n';

  // The running instance may have taken the lock a moment ago and not be
  // listening yet: keep trying until the deadline.
  const QDeadlineTimer deadline(answerTimeoutMs);
  QLocalSocket socket;
  while (true) {
    socket.connectToServer(socketPath_);
    if (socket.waitForConnected(static_cast<int>(std::max<qint64>(deadline.remainingTime(), 0)))) {
      break;
    }
    if (deadline.hasExpired()) {
      error_ = "Corvane is already running but can't be reached at " + socketPath_ + ": " +
               socket.errorString();
      return false;
    }
    socket.abort();
    QThread::msleep(50);
  }
  socket.write(message);
  QByteArray answer;
  while (!answer.endsWith('\n')) {
    if (socket.bytesAvailable() == 0 &&
        !socket.waitForReadyRead(static_cast<int>(std::max<qint64>(deadline.remainingTime(), 0)))) {
      error_ = "Corvane is already running but did not take the link: " + socket.errorString();
      return false;
    }
    answer += socket.readAll();
  }
  if (answer != kAnswer) {
    error_ = "Corvane is already running but gave an unexpected answer";
    return false;
  }
  socket.disconnectFromServer();
  return true;
}

void SingleInstance::serve(QLocalSocket* client) {
  connect(client, &QLocalSocket::disconnected, client, &QObject::deleteLater);
  connect(client, &QLocalSocket::readyRead, this, [this, client] {
    while (client->canReadLine()) {
      const QByteArray line = client->readLine().chopped(1);
      if (line == kEnd) {
        client->write(kAnswer);
        client->disconnectFromServer();
        return;
      }
      if (line == kReopen) {
        emit reopenRequested();
      } else if (line.startsWith(kOpen)) {
        emit urlReceived(QString::fromUtf8(line.mid(static_cast<qsizetype>(sizeof kOpen) - 1)));
      }
    }
    // A line this long is nobody's link: whoever sent it is cut off.
    if (client->bytesAvailable() > maxMessageBytes) client->abort();
  });
}

}  // namespace corvane
