import QtQuick
import QtQuick.Controls.Basic

// The launcher's one status line. A status may hold line feeds (a tool's error output often
// begins with one) and may be far longer than the window is wide, yet the line stays one line
// high: every run of white space is shown as one blank, the ends are trimmed and the rest is cut
// with an ellipsis. Nothing is lost: the line takes keyboard focus and then shows the whole text,
// exactly as it stands, in a tooltip (so does hovering over a cut line), and Ctrl+C or the
// context menu's "Copy" puts that exact text on the clipboard.
Control {
    id: statusLine

    // The status exactly as the model has it.
    property string fullText
    // What is drawn on the one line.
    readonly property string shownText: fullText.replace(/\s+/g, " ").trim()
    readonly property bool truncated: label.truncated

    // The text just above the line, which the tooltip leaves readable.
    property Item textAbove

    // Puts the exact status on the clipboard.
    signal copyRequested(string text)

    // The keyboard's way to the whole text; the mouse has the hover and the context menu, and a
    // click leaves the focus (and no tooltip) where it was.
    focusPolicy: Qt.TabFocus
    hoverEnabled: true
    padding: 0
    Accessible.role: Accessible.StatusBar
    Accessible.name: fullText
    Accessible.focusable: true

    function copy() {
        copyRequested(fullText);
    }

    contentItem: Text {
        id: label
        objectName: "statusLabel"
        text: statusLine.shownText
        textFormat: Text.PlainText
        font: statusLine.font
        color: "white"
        horizontalAlignment: Text.AlignHCenter
        verticalAlignment: Text.AlignVCenter
        elide: Text.ElideRight
        maximumLineCount: 1
        wrapMode: Text.NoWrap
    }

    FocusRing {
        // Around the words, not the whole width of the window.
        x: (statusLine.width - width) / 2
        width: Math.min(statusLine.width, Math.max(label.paintedWidth, 12) + 12) + 2 * gap
        shown: statusLine.visualFocus
    }

    Keys.onPressed: (event) => {
        if (event.matches(StandardKey.Copy)) {
            statusLine.copy();
            event.accepted = true;
        } else if (event.key === Qt.Key_Menu
                   || (event.key === Qt.Key_F10 && (event.modifiers & Qt.ShiftModifier))) {
            contextMenu.popup(statusLine, (statusLine.width - contextMenu.width) / 2,
                              statusLine.height);
            // A menu opened from the keyboard starts on its first entry, so Return, Enter or
            // Space copies at once; one opened by the mouse chooses nothing until pointed at.
            contextMenu.currentIndex = 0;
            event.accepted = true;
        }
    }

    TapHandler {
        acceptedButtons: Qt.RightButton
        onTapped: (eventPoint) => contextMenu.popup(eventPoint.position.x, eventPoint.position.y)
    }

    ToolTip {
        id: wholeText
        objectName: "statusToolTip"
        // Room between the tooltip and what it keeps clear of.
        readonly property real gap: 4
        // As wide as the window allows, wrapped where it must be.
        readonly property real widest: (statusLine.Window.width > 0 ? statusLine.Window.width
                                                                    : statusLine.width) - 24

        // Above the line, so the buttons below stay free, and above the text over the line too
        // (the installed version), which stays readable: it stands in the free space around the
        // title. A status too tall for that goes below the line, as tall as the window lets it
        // be. Placed when it opens or changes size: only then does the line's place matter.
        function place() {
            const lineTop = statusLine.mapToItem(null, 0, 0).y;
            const ceiling = (statusLine.textAbove ? statusLine.textAbove.mapToItem(statusLine, 0, 0).y
                                                  : 0) - gap;
            if (implicitHeight <= lineTop + ceiling - topMargin) {
                height = implicitHeight;
                y = ceiling - implicitHeight;
            } else {
                height = Math.min(implicitHeight, statusLine.Window.height - bottomMargin
                                                  - lineTop - statusLine.height - gap);
                y = statusLine.height + gap;
            }
        }
        onAboutToShow: place()
        onImplicitHeightChanged: {
            if (visible)
                place();
        }

        x: (statusLine.width - width) / 2
        width: Math.min(implicitWidth, widest)
        closePolicy: Popup.NoAutoClose
        visible: (statusLine.activeFocus || (statusLine.hovered && statusLine.truncated))
                 && statusLine.fullText !== "" && !contextMenu.visible
        text: statusLine.fullText
        contentItem: Text {
            objectName: "statusToolTipText"
            // Line feeds before the first words or after the last would show as empty lines.
            text: wholeText.text.replace(/^\s*\n|\s+$/g, "")
            textFormat: Text.PlainText
            font: wholeText.font
            wrapMode: Text.WrapAtWordBoundaryOrAnywhere
            // Only a text taller than the window is cut; "Copy" still takes all of it.
            elide: Text.ElideRight
            color: wholeText.palette.toolTipText
        }
    }

    Menu {
        id: contextMenu
        objectName: "statusMenu"

        MenuItem {
            objectName: "statusCopyItem"
            text: qsTr("Copy")
            onTriggered: statusLine.copy()
        }
    }
}
