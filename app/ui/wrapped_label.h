// WrappedLabel: a word-wrapped label whose lines are as even as its width
// allows. Plain wrapping fills each line and leaves what is over to the
// last, which can be one word on its own; this label lays its text out at
// the narrowest width that needs no more lines than the whole width does.
// Its height is that of the lines at the width it is given, so a layout
// that asks for a height gets all of them.
//
// It draws wrapped text itself, without links or selection; without word
// wrap it is a plain QLabel. Main thread only.
#pragma once

#include <QLabel>
#include <QStringList>

class QTextDocument;

namespace corvane {

class WrappedLabel : public QLabel {
  Q_OBJECT
 public:
  explicit WrappedLabel(QWidget* parent = nullptr);

  // Room kept around the text inside the label. Unlike contents margins,
  // which QFrame sets back to its frame's whenever the style changes (as a
  // style sheet's polish does), these stay.
  void setInsets(QMargins insets);

  // The lines as shown at the label's present width, without the spaces
  // they were broken at.
  QStringList lines() const;

  int heightForWidth(int width) const override;

 protected:
  void paintEvent(QPaintEvent* event) override;

 private:
  // The text as the label shows it, `width` wide.
  void layOut(QTextDocument& document, int width) const;
  // The width the text is shown at within `available`.
  int evenWidth(int available) const;
  QRect textArea() const;

  QMargins insets_;
};

}  // namespace corvane
