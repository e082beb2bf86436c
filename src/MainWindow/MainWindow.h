#pragma once
// The hidden anchor window of the agent role; it owns the tray.

#include <QMainWindow>
#include <QMessageBox>
#include <functional>
#include <memory>

namespace vlm {

class Agent;

/// \brief Hidden window that owns the tray; closing it only hides it.
class MainWindow : public QMainWindow {
    Q_OBJECT
public:
    class Tray;

    /// startAgent: run the agent's start-up from the tray (tests build the window without it).
    explicit MainWindow(Agent& agent, bool startAgent = true);
    ~MainWindow() override;

    Tray* tray() const { return tray_.get(); }

    static MainWindow* instance() { return instance_; }

protected:
    void closeEvent(QCloseEvent* event) override;

private:
    static inline MainWindow* instance_ = nullptr;
    std::unique_ptr<Tray> tray_;
};

/// Tells whether the desktop is dark; the theme installs its query.
extern std::function<bool()> darkModeQuery;

/// The program's modal message box, dark when the desktop is.
int showMessageBox(QWidget* parent, const QString& title, const QString& text,
                   QMessageBox::Icon icon, QMessageBox::StandardButtons buttons);

}  // namespace vlm
