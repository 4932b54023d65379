// SingleInstance: one running application per user. The first process
// holds a lock file and listens on a local socket that only this user can
// open; a later start (a "corvane://" link opened from the browser, or the
// user starting the application again) hands its links to that process
// over the socket and exits.
//
// A process that crashed leaves its lock and socket behind: the lock names
// a process that is gone, so the next start takes it over and replaces the
// socket.
//
// Main thread only (it lives on the Qt event loop); the signals arrive
// there in the order the links were sent.
#pragma once

#include <QLocalServer>
#include <QLockFile>
#include <QObject>
#include <QString>
#include <QStringList>
#include <memory>
#include <optional>

#include "app/platform/user_directories.h"

namespace corvane {

class SingleInstance final : public QObject {
  Q_OBJECT
 public:
  // Where this user's socket and lock live: $XDG_RUNTIME_DIR when it is an
  // absolute path, else a folder "corvane-<uid>" of mode 0700 in the
  // temporary directory, made if needed and refused unless this user owns
  // it and nobody else may enter it. Absent with `error` set when neither
  // works.
  static std::optional<QString> defaultDirectory(const UserDirectories::GetEnv& getenv,
                                                 QString* error);

  // The socket "corvane-<uid>.socket" and its lock in `directory`.
  explicit SingleInstance(const QString& directory, QObject* parent = nullptr);
  ~SingleInstance() override;

  const QString& socketPath() const { return socketPath_; }

  enum class Role {
    primary,      // this process runs the application and listens
    handedOver,   // a running instance took `urls`; this process should exit
    failed,       // an instance runs but did not take them; errorString() says why
    unavailable,  // no lock or socket can be made here; errorString() says why
  };
  // Becomes the listening instance, or hands `urls` to the running one
  // (none: the user opened the application again). A running instance that
  // does not answer within `answerTimeoutMs` counts as failed.
  Role start(const QStringList& urls, int answerTimeoutMs = 5000);

  QString errorString() const { return error_; }

  // The longest message a client may send, in bytes; a longer one is cut off.
  static constexpr qint64 maxMessageBytes = 64 * 1024;

 signals:
  // A link handed over by a later start.
  void urlReceived(const QString& url);
  // A later start without a link: the user opened the application again.
  void reopenRequested();

 private:
  bool listen();
  bool handOver(const QStringList& urls, int answerTimeoutMs);
  void serve(class QLocalSocket* client);

  QString socketPath_;
  QLockFile lock_;
  QLocalServer server_;
  QString error_;
};

}  // namespace corvane
