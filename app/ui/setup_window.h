// SetupWindow: the setup flow, one screen per SetupStep (move, connect, Full
// Disk Access, Automation, Contacts, done) under a symbol, a title and a
// body, with the step dots under them and a back control at the top.
//
// It shows what the model publishes and calls the model's operations; its
// only state of its own is view state (whether the code box is open, the
// code typed so far). Every control and text has an object name so tests
// and screenshots can find it.
//
// Main thread only. The model must outlive the window.
#pragma once

#include <QWidget>
#include <functional>
#include <string>

#include "app/model/app_model.h"

class QCheckBox;
class QLabel;
class QLineEdit;
class QPushButton;
class QToolButton;

namespace corvane {

class StepDots;
class SymbolView;

// Whether a window other than `setupWindow` that could be the application's
// main window is on screen: another top-level window or a dialog (an update
// offer, an about box), not a menu, tool tip, tool palette or minimised window.
// While one is, closing setup keeps the application in the Dock.
bool otherMainWindowVisible(const QWidget* setupWindow);

class SetupWindow : public QWidget {
  Q_OBJECT
 public:
  static constexpr int contentWidth = 600;
  static constexpr int contentHeight = 580;

  // Gives the window the system's frame (SystemIntegration::frameSetupWindow)
  // and answers the height of a title bar drawn over its content's top, 0
  // when the frame sits outside the content.
  using Frame = std::function<int(QWidget& window)>;

  // `close` runs after "Done" has finished the setup: the owner hides or
  // destroys the window. `openURL` opens a web page ("Open Corvane"); the
  // desktop's browser when empty. `frame`, when given, runs once, here.
  SetupWindow(AppModel& model, std::function<void()> close,
              std::function<void(const std::string& url)> openURL = {}, Frame frame = {},
              QWidget* parent = nullptr);
  ~SetupWindow() override;

  // Shows the model's current state; runs after every model change.
  void render();

 protected:
  void mousePressEvent(QMouseEvent* event) override;

 private:
  QWidget* buildMovePage();
  QWidget* buildConnectPage();
  QWidget* buildFullDiskPage();
  QWidget* buildAutomationPage();
  QWidget* buildContactsPage();
  QWidget* buildDonePage();

  void renderHeader(const AppModel::Published& p);
  void renderMove(const AppModel::Published& p);
  void renderConnect(const AppModel::Published& p);
  void renderFullDisk(const AppModel::Published& p);
  void renderAutomation(const AppModel::Published& p);
  void renderContacts(const AppModel::Published& p);
  void renderDone(const AppModel::Published& p);

  AppModel& model_;
  std::function<void()> close_;
  std::function<void(const std::string&)> openURL_;
  int observer_ = 0;
  int titleBarOverlap_ = 0;

  // View state.
  bool codeOpen_ = false;

  // Header and footer.
  QToolButton* back_ = nullptr;
  SymbolView* symbol_ = nullptr;
  QLabel* caption_ = nullptr;
  QLabel* title_ = nullptr;
  QLabel* body_ = nullptr;
  QWidget* pages_ = nullptr;  // one page per step; only the current one shown
  StepDots* dots_ = nullptr;

  // Move.
  QLabel* moveError_ = nullptr;

  // Connect.
  QWidget* connectActions_ = nullptr;
  QPushButton* connectWithBrowser_ = nullptr;
  QLabel* waitingForBrowser_ = nullptr;
  QPushButton* codeToggle_ = nullptr;
  QWidget* codeBox_ = nullptr;
  QLineEdit* codeField_ = nullptr;
  QPushButton* codeConnect_ = nullptr;
  QLabel* pairingError_ = nullptr;
  QWidget* pendingLinkBox_ = nullptr;
  QLabel* pendingLinkText_ = nullptr;
  QLabel* untrustedWarning_ = nullptr;
  QPushButton* pendingContinue_ = nullptr;
  QWidget* connectedRow_ = nullptr;
  QLabel* connectedAs_ = nullptr;
  QPushButton* connectContinue_ = nullptr;

  // Full Disk Access.
  QLabel* fullDiskInstruction_ = nullptr;
  QWidget* fullDiskActions_ = nullptr;
  QLabel* fullDiskWaiting_ = nullptr;
  QWidget* fullDiskGrantedRow_ = nullptr;
  QPushButton* fullDiskContinue_ = nullptr;

  // Automation.
  QPushButton* allowSending_ = nullptr;
  QLabel* automationBusy_ = nullptr;
  QWidget* automationDeniedBox_ = nullptr;
  QLabel* automationMessage_ = nullptr;
  QWidget* automationGrantedRow_ = nullptr;
  QLabel* automationGranted_ = nullptr;
  QPushButton* automationContinue_ = nullptr;
  QPushButton* skipAutomation_ = nullptr;

  // Contacts.
  QPushButton* allowContacts_ = nullptr;
  QLabel* contactsBusy_ = nullptr;
  QWidget* contactsGrantedRow_ = nullptr;
  QWidget* contactsDeniedBox_ = nullptr;
  QPushButton* contactsContinue_ = nullptr;
  QPushButton* skipContacts_ = nullptr;

  // Done.
  QCheckBox* launchAtLogin_ = nullptr;
  QLabel* loginItemError_ = nullptr;
  QLabel* skippedPermissions_ = nullptr;
};

}  // namespace corvane
