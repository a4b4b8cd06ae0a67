// WindowModeController: the main window's size modes. Full size shows the
// title bar and every tab; a mini panel size, chosen from the list kept in
// "prefMiniSizesInfoArray", shrinks the window to a strip with the camera line;
// an icon-mode entry shrinks it to a square with the application icon and the
// camera's status dot. The disclosure button switches between full size and
// the chosen small size, and leaving the small size needs a modifier key on
// purpose, so that a passer-by cannot blow the station up over the booth.
//
// The controller holds every piece of mode state (the list and its selection,
// the remembered full-size frame, limits and movability, the move handler's
// registration) and applies each mode through the Host the window implements,
// so the same rules hold whatever draws the window.
//
// Threads: main thread only. The delayed resign runs on the main queue.
// Ownership: the host is owned by the caller and must outlive the controller
// or be detached with setHost(nullptr). Returned values are copies.
#pragma once

#include <QObject>
#include <QPointF>
#include <QRect>
#include <QSize>
#include <QVariantList>
#include <QVariantMap>

#include <optional>

namespace brix {

class Preferences;

class WindowModeController : public QObject {
    Q_OBJECT
public:
    enum class Mode { FullSize, MiniSize, Icon };

    // Keys of one mini size entry.
    static constexpr const char *kDisplayName = "displayname";
    static constexpr const char *kSomeValue = "somevalue";
    static constexpr const char *kWidth = "width";
    static constexpr const char *kHeight = "height";
    static constexpr const char *kHeightOffset = "heightoffset";
    static constexpr const char *kIconMode = "iconmode";
    // The identity of the icon size in the factory list, recognised even
    // without an "iconmode" key.
    static constexpr const char *kIconSomeValue = "pref3";
    static constexpr const char *kDefaultMarker = "Default";
    static constexpr const char *kBottomRight = "bottomright";

    static constexpr double kDefaultMiniWidth = 350.0;
    static constexpr double kDefaultHeightOffset = 30.0;
    static constexpr double kDefaultIconSide = 80.0;
    // The mini window's height is this minus the entry's height offset.
    static constexpr double kMiniHeightBase = 100.0;
    static constexpr double kResignMainDelaySeconds = 0.2;
    // Inset of the icon from the screen's top-right corner when it has no
    // stored place yet.
    static constexpr int kIconFirstPlaceInset = 20;

    // Log lines.
    static constexpr const char *kLogDefaultEntries = "result = %1";
    static constexpr const char *kLogSelectedInfo = "info = %1";
    static constexpr const char *kLogButtonFrame = "ibDisclosureButton  frame = %1";
    static constexpr const char *kLogButtonBounds = "ibDisclosureButton bounds = %1";
    static constexpr const char *kLogTabVisibleRect = "self.ibTabView.visibleRect = %1";
    static constexpr const char *kLogButtonState = "disclosure button state: %1";
    static constexpr const char *kLogNotAllowed = "Inside %1 => %2...Not allowed...";
    static constexpr const char *kLogKeepingSmall =
        "Inside %1 => %2...keeping it small - but if title mark missing then show it...";
    static constexpr const char *kLogStillSmallShow = "Inside %1 => %2...STILL SMALL... SHOW TITLE BAR";
    static constexpr const char *kLogStillSmallHide = "Inside %1 => %2...STILL SMALL... HIDE TITLE BAR";
    static constexpr const char *kLogCompositorPlaces =
        "window placement is up to the Wayland compositor: mini sizes and the icon change size, but the "
        "forced corner and the icon's stored place are not applied";
    static constexpr const char *kLogBadStoredPoint = "prefMiniSize3Position \"%1\" is not a point; ignored";

    // What the controller needs of the window. Frames are in Qt's screen
    // coordinates (top-left origin) and include the window's decorations.
    class Host {
    public:
        virtual ~Host() = default;
        virtual QRect frame() const = 0;
        virtual void setFrame(const QRect &frame) = 0;
        // The primary screen, whole and without the desktop's panels.
        virtual QRect screenGeometry() const = 0;
        virtual QRect availableGeometry() const = 0;
        virtual QSize minimumSize() const = 0;
        virtual QSize maximumSize() const = 0;
        virtual void setSizeLimits(const QSize &minimum, const QSize &maximum) = 0;
        virtual bool isMovableByBackground() const = 0;
        virtual void setMovableByBackground(bool movable) = 0;
        virtual bool isTitleShown() const = 0;
        virtual void setTitleShown(bool shown) = 0;
        virtual void setResizable(bool resizable) = 0;
        virtual void setWindowButtonsShown(bool shown) = 0;
        // Full panel, the mini strip, or the icon view.
        virtual void showContent(Mode mode) = 0;
        virtual QRect tabVisibleRect() const = 0;
        // Gives up the keyboard focus, so that keys meant for another
        // application of the booth never reach a camera control.
        virtual void resignMain() = 0;
        // False where the display server places windows itself (native Wayland).
        virtual bool canPlaceItself() const = 0;
    };

    explicit WindowModeController(Preferences &preferences, QObject *parent = nullptr);
    ~WindowModeController() override;

    void setHost(Host *host) { host_ = host; }

    // --- the list ---
    // The list as loaded by setupFMiniSizeStuff (the array controller's content).
    QVariantList miniSizes() const { return miniSizes_; }
    // Row selected in the list, -1 when none.
    int selectedRow() const { return selectedRow_; }
    void setupFMiniSizeStuff();
    void setupMiniPanelSizeStuff();
    // The operator picked `row`: stored when the entry has a "somevalue".
    void ibClickSelectMiniSize(int row);

    // --- the selected entry ---
    QVariantMap getMiniPanelInfo() const;
    double getMiniWidth() const;
    double getMiniVerticalOffset() const;
    bool isMiniSize3Selected() const;
    QSizeF miniSize3IconSize() const;
    static bool isIconModeEntry(const QVariantMap &entry);
    // The stored icon origin: the window's lower-left corner, y upwards from
    // the bottom of the primary screen.
    std::optional<QPointF> savedMiniSize3Origin() const;
    void saveMiniSize3Position(const QPointF &origin);
    bool forcedBottomRight() const;

    // --- modes ---
    Mode mode() const { return mode_; }
    // ON means full size.
    bool disclosureState() const { return disclosureState_; }
    bool fControlKeyPressed() const { return fControlKeyPressed_; }
    // `senderState` is the button's new state; none when called without a
    // sender (start-up), which means OFF. `held` are the modifiers at the click.
    void ibDisclosureButton(std::optional<bool> senderState, Qt::KeyboardModifiers held,
                            const QRectF &senderFrame = {}, const QRectF &senderBounds = {});
    void ibShowTitleBar();
    void ibHideTitleBar();
    // Back to full size without asking for a modifier key: the icon's double
    // click and the request to show the preferences.
    void expandToFullSize();

    // The window moved; in icon mode (while the move handler is registered)
    // its origin is stored.
    void windowDidMove();
    void windowDidMoveForMiniSize3();
    void registerMiniSize3MoveObserverIfNeeded();
    void unregisterMiniSize3MoveObserverIfNeeded();
    // The window became the active one: the small modes give the focus back
    // 0.2 s later.
    void windowDidBecomeKey();
    void myresignMainWindow();

    // Converts between the stored origin (lower-left, y upwards) and a top-left frame.
    QPointF storedOriginForFrame(const QRect &frame) const;
    QPoint topLeftForStoredOrigin(const QPointF &origin, const QSize &size) const;

    static QString pointString(const QPointF &point);
    static std::optional<QPointF> pointFromString(const QString &text);
    static QString rectString(const QRectF &rect);

signals:
    void miniSizesChanged();
    void selectedRowChanged();
    void modeChanged();
    void disclosureStateChanged();
    // Full size shows the first tab again.
    void initialTabRequested();

private:
    QString objectDescription() const;
    void setDisclosureState(bool on);
    void setMode(Mode mode);
    void applyFullSize();
    void applyMiniSize();
    void rememberLimitsOnce();
    void placeFrame(const QPoint &topLeft, const QSize &size);

    Preferences &prefs_;
    Host *host_ = nullptr;
    QVariantList miniSizes_;
    int selectedRow_ = -1;
    Mode mode_ = Mode::FullSize;
    bool disclosureState_ = true;
    bool fControlKeyPressed_ = false;
    QRect fullFrame_;
    QSize fSavedMinSize_;
    QSize fSavedMaxSize_;
    bool fHasSavedMinMaxSize_ = false;
    bool fSavedWindowMovable_ = false;
    bool fHasSavedWindowMovable_ = false;
    bool fMiniSize3MoveObserverRegistered_ = false;
    bool compositorPlacementLogged_ = false;
};

} // namespace brix
