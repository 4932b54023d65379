// Finding and using widgets the way a user would: by object name, only when
// they are shown, with real mouse clicks and key presses.
#pragma once

#include <gtest/gtest.h>

#include <QAbstractButton>
#include <QLabel>
#include <QTest>
#include <QTextBlock>
#include <QTextDocument>
#include <QWidget>
#include <vector>

namespace corvane::testing {

inline QWidget* child(QWidget& root, const char* name) {
  auto* w = root.findChild<QWidget*>(QString::fromLatin1(name));
  EXPECT_NE(w, nullptr) << "no widget named " << name;
  return w;
}

// Shown on screen when `root` is.
inline bool shown(QWidget& root, const char* name) {
  QWidget* w = child(root, name);
  return w != nullptr && w->isVisibleTo(&root);
}

// Each of `visible` is shown and none of `hidden`.
inline void expectShown(QWidget& root, const std::vector<const char*>& visible,
                        const std::vector<const char*>& hidden = {}) {
  for (const char* name : visible) EXPECT_TRUE(shown(root, name)) << name;
  for (const char* name : hidden) EXPECT_FALSE(shown(root, name)) << name;
}

// What a label shows: rich text as plain text with its bold runs between
// "**", the way the texts are written; capitals where its font makes them.
inline std::string shownText(const QLabel& label) {
  QString out = label.text();
  if (label.textFormat() == Qt::RichText) {
    QTextDocument document;
    document.setHtml(label.text());
    out.clear();
    for (QTextBlock block = document.begin(); block.isValid(); block = block.next()) {
      for (auto it = block.begin(); !it.atEnd(); ++it) {
        const QTextFragment fragment = it.fragment();
        const bool bold = fragment.charFormat().fontWeight() >= QFont::Bold;
        out +=
            bold ? QStringLiteral("**") + fragment.text() + QStringLiteral("**") : fragment.text();
      }
    }
  }
  if (label.font().capitalization() == QFont::AllUppercase) out = out.toUpper();
  return out.toStdString();
}

inline std::string text(QWidget& root, const char* name) {
  QWidget* w = child(root, name);
  if (auto* label = qobject_cast<QLabel*>(w)) return shownText(*label);
  if (auto* button = qobject_cast<QAbstractButton*>(w)) return button->text().toStdString();
  ADD_FAILURE() << name << " shows no text";
  return {};
}

inline bool enabled(QWidget& root, const char* name) {
  QWidget* w = child(root, name);
  return w != nullptr && w->isEnabled();
}

// Clicks the control like a user: it must be shown and enabled.
inline void click(QWidget& root, const char* name) {
  auto* button = qobject_cast<QAbstractButton*>(child(root, name));
  ASSERT_NE(button, nullptr) << name << " is not a button";
  ASSERT_TRUE(button->isVisibleTo(&root)) << name << " is hidden";
  ASSERT_TRUE(button->isEnabled()) << name << " is disabled";
  QTest::mouseClick(button, Qt::LeftButton);
}

}  // namespace corvane::testing
