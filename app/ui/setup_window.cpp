#include "app/ui/setup_window.h"

#include <QApplication>
#include <QCheckBox>
#include <QDesktopServices>
#include <QFontMetrics>
#include <QFrame>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMouseEvent>
#include <QPainter>
#include <QPushButton>
#include <QToolButton>
#include <QUrl>
#include <QVBoxLayout>
#include <QWindow>
#include <algorithm>

#include "app/model/setup_texts.h"
#include "app/ui/symbols.h"
#include "app/ui/wrapped_label.h"

namespace corvane {
namespace {

const QColor accent(0x2b, 0x6c, 0xe6);
const QColor green(0x2f, 0xb3, 0x4f);
const QColor contactsColour(0x8a, 0x6f, 0xe0);

// Type in the sizes of the system's text styles: title 22, body 13, headline
// 13 bold, callout 12, title 3 15 for a granted state.
const char* const windowStyle = R"(
corvane--SetupWindow { background: #ffffff; }
QLabel { color: #1d1d1f; font-size: 13px; }
QLabel[role="caption"] { color: #2b6ce6; font-size: 13px; font-weight: 600; }
QLabel[role="title"] { font-size: 22px; font-weight: 600; }
QLabel[role="body"] { color: #5b5c63; font-size: 13px; }
QLabel[role="note"] { color: #6e6f76; font-size: 13px; }
QLabel[role="fieldLabel"] { color: #5b5c63; font-size: 12px; font-weight: 600; }
QLabel[role="error"] { color: #c9352b; font-size: 13px; }
QLabel[role="warning"] { color: #a5560a; font-size: 13px; }
QLabel[role="success"] { color: #1f8a3b; font-size: 15px; font-weight: 600; }
QPushButton { font-size: 14px; min-height: 20px; }
QPushButton[role="primary"] {
  background: #2b6ce6; color: #ffffff; border: none; border-radius: 9px;
  padding: 9px 26px; font-weight: 600; min-width: 200px;
}
QPushButton[role="primary"]:hover { background: #245dc9; }
QPushButton[role="primary"]:pressed { background: #1e4fad; }
QPushButton[role="primary"]:disabled { background: #dfe7f7; color: #5b6f96; }
QPushButton[role="secondary"] {
  background: #f3f3f6; color: #1d1d1f; border: 1px solid #d8d9de; border-radius: 9px;
  padding: 8px 20px;
}
QPushButton[role="secondary"]:hover { background: #eaeaee; }
QPushButton[role="secondary"]:pressed { background: #dfdfe4; }
QPushButton[role="secondary"]:disabled { color: #808187; }
QPushButton[role="link"] {
  background: transparent; border: none; color: #2b6ce6; padding: 4px 8px; font-size: 13px;
}
QPushButton[role="link"]:hover { color: #1e4fad; text-decoration: underline; }
QToolButton#back { background: transparent; border: none; border-radius: 7px; padding: 5px; }
QToolButton#back:hover { background: #efeff2; }
QLineEdit {
  border: 1px solid #cfd0d6; border-radius: 8px; padding: 7px 10px; font-size: 16px;
  background: #ffffff; selection-background-color: #2b6ce6;
}
QLineEdit:focus { border: 2px solid #2b6ce6; padding: 6px 9px; }
QFrame[role="card"] { background: #f6f7f9; border: 1px solid #e4e5ea; border-radius: 12px; }
QFrame[role="card"] QLabel { background: transparent; }
QLabel[role="instruction"] {
  background: #f6f7f9; border: 1px solid #e4e5ea; border-radius: 10px; padding: 12px 16px;
}
QCheckBox { font-size: 13px; color: #1d1d1f; }
)";

// "**word**" shown in bold; the rest as plain text.
QString markup(std::string_view text) {
  QString html;
  bool bold = false;
  std::string_view rest = text;
  while (true) {
    auto mark = rest.find("**");
    QString part = QString::fromUtf8(rest.substr(0, mark).data(),
                                     static_cast<qsizetype>(rest.substr(0, mark).size()));
    html += part.toHtmlEscaped();
    if (mark == std::string_view::npos) break;
    html += bold ? QStringLiteral("</b>") : QStringLiteral("<b>");
    bold = !bold;
    rest = rest.substr(mark + 2);
  }
  if (bold) html += QStringLiteral("</b>");
  return html;
}

QString q(std::string_view text) {
  return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

WrappedLabel* makeLabel(const char* name, const char* role, QWidget* parent,
                        Qt::Alignment alignment = Qt::AlignHCenter) {
  auto* label = new WrappedLabel(parent);
  label->setObjectName(QString::fromLatin1(name));
  label->setProperty("role", QString::fromLatin1(role));
  label->setAlignment(alignment);
  label->setTextFormat(Qt::PlainText);
  return label;
}

QLabel* makeRichLabel(const char* name, const char* role, std::string_view text, QWidget* parent) {
  auto* label = makeLabel(name, role, parent);
  label->setTextFormat(Qt::RichText);
  label->setText(markup(text));
  return label;
}

QPushButton* makeButton(const char* name, const char* role, const QString& text, QWidget* parent) {
  auto* button = new QPushButton(text, parent);
  button->setObjectName(QString::fromLatin1(name));
  button->setProperty("role", QString::fromLatin1(role));
  button->setCursor(Qt::PointingHandCursor);
  button->setAutoDefault(false);
  return button;
}

// A row of widgets centred horizontally.
QWidget* centredRow(QWidget* parent, std::initializer_list<QWidget*> widgets, int spacing = 10) {
  auto* row = new QWidget(parent);
  row->setProperty("row", true);
  auto* layout = new QHBoxLayout(row);
  layout->setContentsMargins(0, 0, 0, 0);
  layout->setSpacing(spacing);
  layout->addStretch();
  for (QWidget* w : widgets) {
    w->setParent(row);
    layout->addWidget(w);
  }
  layout->addStretch();
  return row;
}

// A granted state: the check mark and its line.
QWidget* grantedRow(const char* name, const QString& text, QWidget* parent) {
  auto* label = makeLabel(name, "success", nullptr);
  label->setText(text);
  label->setWordWrap(false);
  // Centring the boxes puts the text's x-height above the mark's middle;
  // the margin lowers the text onto it.
  label->setContentsMargins(0, 2, 0, 0);
  return centredRow(parent, {new SymbolView(Symbol::checkmarkCircle, green, 22), label}, 8);
}

// Shows or hides a control; a centred row goes with it, so that an empty
// row leaves no gap.
void showControl(QWidget* control, bool visible) {
  control->setVisible(visible);
  QWidget* row = control->parentWidget();
  if (row == nullptr || !row->property("row").toBool()) return;
  bool any = false;
  for (QWidget* w : row->findChildren<QWidget*>(QString(), Qt::FindDirectChildrenOnly)) {
    any = any || !w->isHidden();
  }
  row->setVisible(any);
}

QWidget* makePage(QWidget* pages) {
  auto* page = new QWidget(pages);
  auto* layout = new QVBoxLayout(page);
  layout->setContentsMargins(0, 0, 0, 0);
  layout->setSpacing(10);
  pages->layout()->addWidget(page);
  return page;
}

QVBoxLayout* column(QWidget* page) { return static_cast<QVBoxLayout*>(page->layout()); }

// A shaded box with a column of its own.
QFrame* makeCard(const char* name, int verticalMargin, int spacing, QWidget* parent) {
  auto* card = new QFrame(parent);
  card->setObjectName(QString::fromLatin1(name));
  card->setProperty("role", QStringLiteral("card"));
  auto* layout = new QVBoxLayout(card);
  layout->setContentsMargins(22, verticalMargin, 22, verticalMargin);
  layout->setSpacing(spacing);
  return card;
}

QIcon chevronIcon() {
  constexpr int side = 22;
  QPixmap pixmap(side * 2, side * 2);
  pixmap.setDevicePixelRatio(2);
  pixmap.fill(Qt::transparent);
  QPainter painter(&pixmap);
  paintSymbol(painter, Symbol::chevronLeft, QRectF(2, 2, side - 4, side - 4),
              QColor(0x4a, 0x4b, 0x52));
  return QIcon(pixmap);
}

// An on/off switch with its label to the right: a check box drawn as the
// switch people know from system settings.
class ToggleSwitch : public QCheckBox {
 public:
  ToggleSwitch(const QString& text, QWidget* parent) : QCheckBox(text, parent) {}

  QSize sizeHint() const override {
    const QFontMetrics metrics(font());
    return {trackWidth + gap + metrics.horizontalAdvance(text()) + 2,
            std::max(trackHeight + 4, metrics.height() + 4)};
  }

 protected:
  bool hitButton(const QPoint& pos) const override { return rect().contains(pos); }

  void paintEvent(QPaintEvent*) override {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const QRectF track(1, (height() - trackHeight) / 2.0, trackWidth, trackHeight);
    painter.setPen(Qt::NoPen);
    painter.setBrush(isChecked() ? (isEnabled() ? accent : QColor(0xa9, 0xc3, 0xf3))
                                 : QColor(0xd3, 0xd4, 0xd9));
    painter.drawRoundedRect(track, trackHeight / 2.0, trackHeight / 2.0);
    const qreal knob = trackHeight - 4;
    const qreal knobX = isChecked() ? track.right() - knob - 2 : track.left() + 2;
    painter.setBrush(QColor(0, 0, 0, 30));
    painter.drawEllipse(QRectF(knobX, track.top() + 2.5, knob, knob));
    painter.setBrush(Qt::white);
    painter.drawEllipse(QRectF(knobX, track.top() + 2, knob, knob));
    painter.setPen(palette().color(QPalette::WindowText));
    painter.drawText(QRectF(trackWidth + gap, 0, width() - trackWidth - gap, height()),
                     Qt::AlignVCenter | Qt::AlignLeft, text());
  }

 private:
  static constexpr int trackWidth = 38;
  static constexpr int trackHeight = 22;
  static constexpr int gap = 10;
};

}  // namespace

// One dot per step; the current one in the accent colour, the ones before it
// in a lighter tint.
class StepDots : public QWidget {
 public:
  explicit StepDots(QWidget* parent) : QWidget(parent) {
    setObjectName(QStringLiteral("stepDots"));
    setFixedSize(count * pitch, 12);
    setCurrent(0);
  }
  void setCurrent(int current) {
    current_ = current;
    setProperty("current", current);
    update();
  }

 protected:
  void paintEvent(QPaintEvent*) override {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    for (int i = 0; i < count; ++i) {
      QColor colour = i == current_  ? accent
                      : i < current_ ? QColor(0xa9, 0xc3, 0xf3)
                                     : QColor(0xd6, 0xd7, 0xdc);
      painter.setBrush(colour);
      const qreal d = i == current_ ? 9 : 7;
      painter.drawEllipse(QPointF(i * pitch + pitch / 2.0, height() / 2.0), d / 2, d / 2);
    }
  }

 private:
  static constexpr int count = static_cast<int>(SetupStep::done) + 1;
  static constexpr int pitch = 18;
  int current_ = 0;
};

bool otherMainWindowVisible(const QWidget* setupWindow) {
  const QWidgetList windows = QApplication::topLevelWidgets();
  return std::any_of(windows.begin(), windows.end(), [setupWindow](const QWidget* w) {
    const Qt::WindowType type = w->windowType();
    return w != setupWindow && w->isVisible() && !w->isMinimized() &&
           (type == Qt::Window || type == Qt::Dialog);
  });
}

SetupWindow::SetupWindow(AppModel& model, std::function<void()> close,
                         std::function<void(const std::string&)> openURL, Frame frame,
                         QWidget* parent)
    : QWidget(parent), model_(model), close_(std::move(close)), openURL_(std::move(openURL)) {
  if (!openURL_) {
    openURL_ = [](const std::string& url) {
      QDesktopServices::openUrl(QUrl(QString::fromStdString(url)));
    };
  }
  setObjectName(QStringLiteral("setupWindow"));
  setWindowTitle(QStringLiteral("Set up Corvane"));
  setFixedSize(contentWidth, contentHeight);
  setAttribute(Qt::WA_StyledBackground);
  setStyleSheet(QString::fromUtf8(windowStyle));
  if (frame) titleBarOverlap_ = std::max(0, frame(*this));

  auto* root = new QVBoxLayout(this);
  // Below a title bar drawn over the content, whose buttons sit where the
  // back control would.
  root->setContentsMargins(40, std::max(14, titleBarOverlap_), 40, 22);
  root->setSpacing(0);

  back_ = new QToolButton(this);
  back_->setObjectName(QStringLiteral("back"));
  back_->setIcon(chevronIcon());
  back_->setIconSize(QSize(22, 22));
  back_->setToolTip(QStringLiteral("Back"));
  back_->setAccessibleName(QStringLiteral("Back"));
  back_->setCursor(Qt::PointingHandCursor);
  connect(back_, &QToolButton::clicked, this, [this] { model_.goBack(); });
  // The row keeps its height when the control is hidden, so screens don't jump.
  auto* backRow = new QWidget(this);
  backRow->setFixedHeight(32);
  auto* backLayout = new QHBoxLayout(backRow);
  backLayout->setContentsMargins(0, 0, 0, 0);
  backLayout->addWidget(back_);
  backLayout->addStretch();
  back_->setParent(backRow);
  root->addWidget(backRow);
  // The screen's content and its dots stand together a little above the
  // middle of the space, as a window is centred on the screen: a short
  // screen leaves no empty band above the dots.
  root->addStretch(2);

  symbol_ = new SymbolView(Symbol::arrowDownCircle, accent, 72, this);
  symbol_->setObjectName(QStringLiteral("stepSymbol"));
  root->addWidget(symbol_, 0, Qt::AlignHCenter);
  root->addSpacing(16);

  caption_ = makeLabel("stepCaption", "caption", this);
  root->addWidget(caption_);
  root->addSpacing(4);
  title_ = makeLabel("stepTitle", "title", this);
  root->addWidget(title_);
  root->addSpacing(10);
  auto* body = makeLabel("stepBody", "body", this);
  body->setInsets({6, 0, 6, 0});
  body_ = body;
  root->addWidget(body_);
  root->addSpacing(24);

  // A column where only the current page shows, so the content is as tall
  // as that page and no taller.
  pages_ = new QWidget(this);
  pages_->setObjectName(QStringLiteral("pages"));
  auto* pagesLayout = new QVBoxLayout(pages_);
  pagesLayout->setContentsMargins(0, 0, 0, 0);
  buildMovePage();
  buildConnectPage();
  buildFullDiskPage();
  buildAutomationPage();
  buildContactsPage();
  buildDonePage();
  root->addWidget(pages_);
  root->addSpacing(30);

  dots_ = new StepDots(this);
  root->addWidget(dots_, 0, Qt::AlignHCenter);
  root->addStretch(3);

  observer_ = model_.observe([this] { render(); });
  render();
}

SetupWindow::~SetupWindow() { model_.unobserve(observer_); }

// With the title bar over the content, the background is what the window is
// dragged by. AppKit moves a window by its background only from views that
// are not opaque, and Qt's is, so the press starts the move itself. Controls
// take their own presses; text passes them here.
// https://developer.apple.com/documentation/appkit/nsview/mousedowncanmovewindow
void SetupWindow::mousePressEvent(QMouseEvent* event) {
  if (titleBarOverlap_ > 0 && event->button() == Qt::LeftButton && windowHandle() != nullptr &&
      windowHandle()->startSystemMove()) {
    event->accept();
    return;
  }
  QWidget::mousePressEvent(event);
}

QWidget* SetupWindow::buildMovePage() {
  QWidget* page = makePage(pages_);
  auto* move =
      makeButton("moveToApplications", "primary", QStringLiteral("Move to Applications"), page);
  connect(move, &QPushButton::clicked, this, [this] { model_.moveToApplications(); });
  auto* notNow = makeButton("notNow", "link", QStringLiteral("Not now"), page);
  connect(notNow, &QPushButton::clicked, this, [this] { model_.skip(SetupStep::move); });
  moveError_ = makeLabel("moveError", "error", page);
  column(page)->addWidget(centredRow(page, {move}));
  column(page)->addWidget(centredRow(page, {notNow}));
  column(page)->addSpacing(6);
  column(page)->addWidget(moveError_);
  return page;
}

QWidget* SetupWindow::buildConnectPage() {
  QWidget* page = makePage(pages_);

  // Not connected: the browser, or a code.
  connectActions_ = new QWidget(page);
  auto* actions = new QVBoxLayout(connectActions_);
  actions->setContentsMargins(0, 0, 0, 0);
  actions->setSpacing(10);
  connectWithBrowser_ = makeButton("connectWithBrowser", "primary",
                                   QStringLiteral("Connect with Corvane"), connectActions_);
  connect(connectWithBrowser_, &QPushButton::clicked, this,
          [this] { model_.connectWithBrowser(); });
  actions->addWidget(centredRow(connectActions_, {connectWithBrowser_}));
  waitingForBrowser_ = makeLabel("waitingForBrowser", "note", connectActions_);
  waitingForBrowser_->setText(QStringLiteral("Finish signing in in your browser\u2026"));
  actions->addWidget(waitingForBrowser_);
  codeToggle_ = makeButton("codeToggle", "link", QStringLiteral("Have a code?"), connectActions_);
  connect(codeToggle_, &QPushButton::clicked, this, [this] {
    codeOpen_ = !codeOpen_;
    render();
    if (codeOpen_) codeField_->setFocus();
  });
  actions->addWidget(centredRow(connectActions_, {codeToggle_}));

  codeBox_ = new QWidget(connectActions_);
  codeBox_->setObjectName(QStringLiteral("codeBox"));
  auto* box = new QVBoxLayout(codeBox_);
  box->setContentsMargins(70, 0, 70, 0);
  box->setSpacing(6);
  auto* codeLabel = makeLabel("codeLabel", "fieldLabel", codeBox_, Qt::AlignLeft);
  codeLabel->setText(QStringLiteral("Pairing code"));
  codeField_ = new QLineEdit(codeBox_);
  codeField_->setObjectName(QStringLiteral("codeField"));
  codeField_->setAccessibleName(QStringLiteral("Pairing code"));
  codeField_->setMaxLength(64);
  codeLabel->setBuddy(codeField_);
  codeConnect_ = makeButton("codeConnect", "secondary", QStringLiteral("Connect"), codeBox_);
  auto submit = [this] {
    if (!codeConnect_->isEnabled()) return;
    model_.pair(codeField_->text().toStdString(), model_.published().server);
  };
  connect(codeConnect_, &QPushButton::clicked, this, submit);
  connect(codeField_, &QLineEdit::returnPressed, this, submit);
  auto* fieldRow = new QHBoxLayout();
  fieldRow->setSpacing(8);
  fieldRow->addWidget(codeField_, 1);
  fieldRow->addWidget(codeConnect_);
  box->addWidget(codeLabel);
  box->addLayout(fieldRow);
  actions->addWidget(codeBox_);
  auto* pairingError = makeLabel("pairingError", "error", connectActions_);
  pairingError->setInsets({50, 0, 50, 0});
  pairingError_ = pairingError;
  actions->addWidget(pairingError_);
  column(page)->addWidget(connectActions_);

  // A link that waits for the user's word.
  QFrame* card = makeCard("pendingLink", 18, 10, page);
  pendingLinkBox_ = card;
  auto* cardLayout = column(card);
  pendingLinkText_ = makeLabel("pendingLinkText", "", card);
  untrustedWarning_ = makeLabel("untrustedWarning", "warning", card);
  untrustedWarning_->setText(q(SetupTexts::untrustedServerWarning));
  pendingContinue_ = makeButton("pendingContinue", "primary", QStringLiteral("Continue"), card);
  pendingContinue_->setStyleSheet(QStringLiteral("min-width: 120px;"));
  connect(pendingContinue_, &QPushButton::clicked, this, [this] { model_.confirmPendingLink(); });
  auto* cancel = makeButton("pendingCancel", "secondary", QStringLiteral("Cancel"), card);
  connect(cancel, &QPushButton::clicked, this, [this] { model_.cancelPendingLink(); });
  cardLayout->addWidget(pendingLinkText_);
  cardLayout->addWidget(untrustedWarning_);
  cardLayout->addSpacing(4);
  cardLayout->addWidget(centredRow(card, {cancel, pendingContinue_}));
  column(page)->addWidget(card);

  // Paired.
  connectedAs_ = makeLabel("connectedAs", "success", nullptr);
  connectedAs_->setWordWrap(false);
  connectedRow_ =
      centredRow(page, {new SymbolView(Symbol::checkmarkCircle, green, 22), connectedAs_}, 8);
  column(page)->addWidget(connectedRow_);
  connectContinue_ = makeButton("connectContinue", "primary", QStringLiteral("Continue"), page);
  connect(connectContinue_, &QPushButton::clicked, this,
          [this] { model_.advance(SetupStep::connect); });
  column(page)->addSpacing(8);
  column(page)->addWidget(centredRow(page, {connectContinue_}));
  return page;
}

QWidget* SetupWindow::buildFullDiskPage() {
  QWidget* page = makePage(pages_);
  fullDiskInstruction_ = makeRichLabel(
      "fullDiskInstruction", "instruction",
      "Turn on **Corvane** in the list. Don't see it? Click **+**, and pick Corvane from "
      "Applications.",
      page);
  column(page)->addWidget(fullDiskInstruction_);
  column(page)->addSpacing(8);

  fullDiskActions_ = new QWidget(page);
  auto* actions = new QVBoxLayout(fullDiskActions_);
  actions->setContentsMargins(0, 0, 0, 0);
  actions->setSpacing(10);
  auto* open = makeButton("openFullDiskSettings", "primary", QStringLiteral("Open System Settings"),
                          fullDiskActions_);
  connect(open, &QPushButton::clicked, this, [this] { model_.openFullDiskSettings(); });
  auto* reveal = makeButton("revealApplication", "secondary",
                            QStringLiteral("Show Corvane in Finder"), fullDiskActions_);
  connect(reveal, &QPushButton::clicked, this, [this] { model_.revealApplication(); });
  auto* relaunch = makeButton("relaunch", "link", QStringLiteral("Turned it on? Restart Corvane"),
                              fullDiskActions_);
  connect(relaunch, &QPushButton::clicked, this, [this] { model_.relaunch(); });
  actions->addWidget(centredRow(fullDiskActions_, {open}));
  actions->addWidget(centredRow(fullDiskActions_, {reveal}));
  actions->addWidget(centredRow(fullDiskActions_, {relaunch}));
  fullDiskWaiting_ = makeLabel("fullDiskWaiting", "note", fullDiskActions_);
  fullDiskWaiting_->setText(QStringLiteral("Waiting for you to switch it on\u2026"));
  actions->addWidget(fullDiskWaiting_);
  column(page)->addWidget(fullDiskActions_);

  fullDiskGrantedRow_ =
      grantedRow("fullDiskGranted", QStringLiteral("Corvane can read Messages"), page);
  column(page)->addWidget(fullDiskGrantedRow_);
  fullDiskContinue_ = makeButton("fullDiskContinue", "primary", QStringLiteral("Continue"), page);
  connect(fullDiskContinue_, &QPushButton::clicked, this,
          [this] { model_.advance(SetupStep::fullDisk); });
  column(page)->addSpacing(8);
  column(page)->addWidget(centredRow(page, {fullDiskContinue_}));
  return page;
}

QWidget* SetupWindow::buildAutomationPage() {
  QWidget* page = makePage(pages_);
  allowSending_ = makeButton("allowSending", "primary", QStringLiteral("Allow sending"), page);
  connect(allowSending_, &QPushButton::clicked, this, [this] { model_.requestAutomation(); });
  column(page)->addWidget(centredRow(page, {allowSending_}));
  automationBusy_ = makeLabel("automationBusy", "note", page);
  automationBusy_->setText(QStringLiteral("Click OK in the box macOS shows\u2026"));
  column(page)->addWidget(automationBusy_);

  QFrame* denied = makeCard("automationDeniedBox", 16, 12, page);
  automationDeniedBox_ = denied;
  auto* deniedLayout = column(denied);
  deniedLayout->addWidget(makeRichLabel(
      "automationDenied", "",
      "macOS said no. To fix it, open System Settings \u203A Privacy & Security \u203A Automation "
      "and turn on **Messages** under Corvane.",
      denied));
  auto* open = makeButton("openAutomationSettings", "primary",
                          QStringLiteral("Open Automation Settings"), denied);
  connect(open, &QPushButton::clicked, this,
          [this] { model_.openPrivacyPane(PrivacyPane::automation); });
  auto* again = makeButton("checkAgain", "secondary", QStringLiteral("Check again"), denied);
  connect(again, &QPushButton::clicked, this, [this] { model_.refreshPermissions(); });
  deniedLayout->addWidget(centredRow(denied, {again, open}));
  column(page)->addWidget(denied);

  auto* automationMessage = makeLabel("automationMessage", "note", page);
  automationMessage->setInsets({30, 0, 30, 0});
  automationMessage_ = automationMessage;
  column(page)->addWidget(automationMessage_);

  automationGrantedRow_ =
      grantedRow("automationGranted", QStringLiteral("Corvane can send through Messages"), page);
  automationGranted_ = automationGrantedRow_->findChild<QLabel*>(QStringLiteral("automationGranted"));
  column(page)->addWidget(automationGrantedRow_);
  automationContinue_ =
      makeButton("automationContinue", "primary", QStringLiteral("Continue"), page);
  connect(automationContinue_, &QPushButton::clicked, this,
          [this] { model_.advance(SetupStep::automation); });
  column(page)->addSpacing(8);
  column(page)->addWidget(centredRow(page, {automationContinue_}));

  skipAutomation_ = makeButton("skipAutomation", "link", QStringLiteral("Skip for now"), page);
  connect(skipAutomation_, &QPushButton::clicked, this,
          [this] { model_.skip(SetupStep::automation); });
  column(page)->addWidget(centredRow(page, {skipAutomation_}));
  return page;
}

QWidget* SetupWindow::buildContactsPage() {
  QWidget* page = makePage(pages_);
  allowContacts_ = makeButton("allowContacts", "primary", QStringLiteral("Allow Contacts"), page);
  connect(allowContacts_, &QPushButton::clicked, this, [this] { model_.requestContacts(); });
  column(page)->addWidget(centredRow(page, {allowContacts_}));
  contactsBusy_ = makeLabel("contactsBusy", "note", page);
  contactsBusy_->setText(QStringLiteral("Click OK in the box macOS shows\u2026"));
  column(page)->addWidget(contactsBusy_);

  contactsGrantedRow_ = grantedRow("contactsGranted", QStringLiteral("Names are on"), page);
  column(page)->addWidget(contactsGrantedRow_);

  QFrame* denied = makeCard("contactsDeniedBox", 16, 12, page);
  contactsDeniedBox_ = denied;
  auto* deniedLayout = column(denied);
  auto* deniedText = makeLabel("contactsDenied", "", denied);
  deniedText->setText(
      QStringLiteral("Contacts access is off. You can turn it on later in System Settings \u203A "
                     "Privacy & Security \u203A Contacts."));
  deniedLayout->addWidget(deniedText);
  auto* open = makeButton("openContactsSettings", "secondary",
                          QStringLiteral("Open Contacts Settings"), denied);
  connect(open, &QPushButton::clicked, this,
          [this] { model_.openPrivacyPane(PrivacyPane::contacts); });
  deniedLayout->addWidget(centredRow(denied, {open}));
  column(page)->addWidget(denied);

  contactsContinue_ = makeButton("contactsContinue", "primary", QStringLiteral("Continue"), page);
  // Without an address book there is nothing to come back for.
  connect(contactsContinue_, &QPushButton::clicked, this, [this] {
    if (model_.published().addressBook) {
      model_.advance(SetupStep::contacts);
    } else {
      model_.skip(SetupStep::contacts);
    }
  });
  column(page)->addSpacing(4);
  column(page)->addWidget(centredRow(page, {contactsContinue_}));

  skipContacts_ = makeButton("skipContacts", "link", QStringLiteral("Skip for now"), page);
  connect(skipContacts_, &QPushButton::clicked, this, [this] { model_.skip(SetupStep::contacts); });
  column(page)->addWidget(centredRow(page, {skipContacts_}));
  return page;
}

QWidget* SetupWindow::buildDonePage() {
  QWidget* page = makePage(pages_);
  launchAtLogin_ = new ToggleSwitch(QStringLiteral("Launch Corvane when I log in"), page);
  launchAtLogin_->setObjectName(QStringLiteral("launchAtLogin"));
  launchAtLogin_->setCursor(Qt::PointingHandCursor);
  connect(launchAtLogin_, &QCheckBox::toggled, this,
          [this](bool on) { model_.setLaunchAtLogin(on); });
  column(page)->addWidget(centredRow(page, {launchAtLogin_}));
  loginItemError_ = makeLabel("loginItemError", "error", page);
  column(page)->addWidget(loginItemError_);
  auto* skippedPermissions = makeLabel("skippedPermissions", "note", page);
  skippedPermissions->setInsets({40, 6, 40, 0});
  skippedPermissions_ = skippedPermissions;
  column(page)->addWidget(skippedPermissions_);
  column(page)->addSpacing(14);

  auto* open = makeButton("openCorvane", "secondary", QStringLiteral("Open Corvane"), page);
  connect(open, &QPushButton::clicked, this, [this] { openURL_(model_.published().server); });
  auto* done = makeButton("done", "primary", QStringLiteral("Done"), page);
  done->setStyleSheet(QStringLiteral("min-width: 120px;"));
  connect(done, &QPushButton::clicked, this, [this] {
    model_.finishSetup();
    if (close_) close_();
  });
  column(page)->addWidget(centredRow(page, {open, done}));
  return page;
}

void SetupWindow::render() {
  const AppModel::Published& p = model_.published();
  const QObjectList& pages = pages_->children();
  int index = 0;
  for (QObject* child : pages) {
    if (auto* page = qobject_cast<QWidget*>(child)) {
      page->setVisible(index++ == static_cast<int>(p.step));
    }
  }
  dots_->setCurrent(static_cast<int>(p.step));
  // On Connect too when the Move screen applies.
  back_->setVisible(model_.canGoBack());
  renderHeader(p);
  renderMove(p);
  renderConnect(p);
  renderFullDisk(p);
  renderAutomation(p);
  renderContacts(p);
  renderDone(p);
}

void SetupWindow::renderHeader(const AppModel::Published& p) {
  struct Header {
    Symbol symbol;
    QColor colour;
    const char* caption;
    const char* title;
    const char* body;
  };
  static const Header headers[] = {
      {Symbol::arrowDownCircle, accent, "", "Move Corvane to Applications",
       "Corvane works best from your Applications folder \u2014 that's where macOS remembers the "
       "permissions you're about to give it."},
      {Symbol::link, accent, "", "Connect your account",
       "Sign in on the Corvane website and this Mac links up automatically. No codes to copy."},
      {Symbol::message, green, "Full Disk Access", "Let Corvane read Messages",
       "So Corvane can see who's waiting on you \u2014 only people you add to your roster ever "
       "leave this Mac."},
      {Symbol::paperplane, accent, "", "Let Corvane send the texts you approve",
       "Corvane only sends a text when you tap Send on the website, or when it replies to a note "
       "you texted yourself. macOS will ask you once."},
      {Symbol::personCircle, contactsColour, "", "Show names, not numbers",
       "Corvane can use your Contacts to put names on the people you text. Optional \u2014 you "
       "can name people on the website instead."},
      {Symbol::checkmarkCircle, green, "", "You're all set",
       "Corvane lives up here \u2197 in your menu bar. Add the people you're talking to on the "
       "website \u2014 Corvane takes it from there."},
  };
  const Header& h = headers[static_cast<int>(p.step)];
  const char* body = h.body;
  // Where the system has no Messages app or no address book, the two steps
  // say so instead of promising a prompt.
  if (p.step == SetupStep::automation && !p.automationNeeded) {
    body = "Corvane only sends a text when you tap Send on the website, or when it replies to a "
           "note you texted yourself. This computer has no Messages app: texts are written to a "
           "file instead, and no permission is needed.";
  } else if (p.step == SetupStep::contacts && !p.addressBook) {
    body = "Corvane can put names from your address book on the people you text, but this "
           "computer has none it can read. You can name people on the website instead.";
  }
  symbol_->setSymbol(h.symbol, h.colour);
  caption_->setText(QString::fromUtf8(h.caption));
  caption_->setVisible(*h.caption != '\0');
  title_->setText(QString::fromUtf8(h.title));
  body_->setText(QString::fromUtf8(body));
}

void SetupWindow::renderMove(const AppModel::Published& p) {
  moveError_->setVisible(p.moveError.has_value());
  if (p.moveError) moveError_->setText(q(SetupTexts::moveFailed(*p.moveError)));
}

void SetupWindow::renderConnect(const AppModel::Published& p) {
  const bool pairing = p.pairing.kind == PairingState::Kind::pairing;
  const bool pending = p.pendingLink.has_value();

  pendingLinkBox_->setVisible(pending);
  if (pending) {
    auto confirmation = SetupTexts::linkConfirmation(*p.pendingLink, p);
    pendingLinkText_->setText(q(confirmation.question));
    untrustedWarning_->setVisible(confirmation.untrusted);
  }
  pendingContinue_->setEnabled(!pairing);

  const bool showConnected = p.connected && !pending;
  connectedRow_->setVisible(showConnected);
  showControl(connectContinue_, showConnected);
  if (p.userName) {
    connectedAs_->setText(QStringLiteral("Connected as ") + q(*p.userName));
  } else {
    connectedAs_->setText(QStringLiteral("Connected"));
  }

  connectActions_->setVisible(!p.connected && !pending);
  connectWithBrowser_->setEnabled(!pairing);
  waitingForBrowser_->setVisible(p.pairing.kind == PairingState::Kind::waitingForBrowser);
  codeToggle_->setText(codeOpen_ ? QStringLiteral("Hide code box")
                                 : QStringLiteral("Have a code?"));
  codeBox_->setVisible(codeOpen_);
  codeConnect_->setEnabled(!pairing);
  const bool failed = p.pairing.kind == PairingState::Kind::failed;
  pairingError_->setVisible(failed);
  pairingError_->setText(failed ? q(p.pairing.text) : QString());
}

void SetupWindow::renderFullDisk(const AppModel::Published& p) {
  fullDiskInstruction_->setVisible(!p.fullDiskAccess);
  fullDiskActions_->setVisible(!p.fullDiskAccess);
  fullDiskWaiting_->setVisible(p.openedFullDiskSettingsAt.has_value());
  fullDiskGrantedRow_->setVisible(p.fullDiskAccess);
  showControl(fullDiskContinue_, p.fullDiskAccess);
}

void SetupWindow::renderAutomation(const AppModel::Published& p) {
  const bool granted = p.automation == PermissionState::granted;
  const bool denied = p.automation == PermissionState::denied;
  showControl(allowSending_, !granted && !denied);
  allowSending_->setEnabled(!p.automationBusy);
  automationBusy_->setVisible(p.automationBusy);
  automationDeniedBox_->setVisible(denied);
  automationMessage_->setVisible(!granted && p.automationMessage.has_value());
  automationMessage_->setText(p.automationMessage ? q(*p.automationMessage) : QString());
  automationGrantedRow_->setVisible(granted);
  automationGranted_->setText(p.automationNeeded ? QStringLiteral("Corvane can send through Messages")
                                                 : QStringLiteral("No permission needed here"));
  showControl(automationContinue_, granted);
  showControl(skipAutomation_, !granted);
}

void SetupWindow::renderContacts(const AppModel::Published& p) {
  const bool undecided = p.contacts == PermissionState::unknown;
  const bool ask = undecided && p.addressBook;
  showControl(allowContacts_, ask);
  allowContacts_->setEnabled(!p.contactsBusy);
  contactsBusy_->setVisible(p.contactsBusy);
  contactsGrantedRow_->setVisible(p.contacts == PermissionState::granted);
  contactsDeniedBox_->setVisible(p.contacts == PermissionState::denied);
  showControl(contactsContinue_, !ask);
  showControl(skipContacts_, ask);
}

void SetupWindow::renderDone(const AppModel::Published& p) {
  {
    // Showing the state is not a change the user made.
    const QSignalBlocker quiet(launchAtLogin_);
    launchAtLogin_->setChecked(p.launchAtLogin);
  }
  loginItemError_->setVisible(p.loginItemError.has_value());
  loginItemError_->setText(p.loginItemError ? q(*p.loginItemError) : QString());
  const std::string sentence =
      SetupTexts::skippedPermissionsSentence(SetupTexts::skippedPermissions(p));
  skippedPermissions_->setVisible(!sentence.empty());
  skippedPermissions_->setText(q(sentence));
}

}  // namespace corvane
