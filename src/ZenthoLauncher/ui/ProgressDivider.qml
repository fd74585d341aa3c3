import QtQuick

// The thin rule between the main button and the saved-versions section. While a download runs
// it doubles as the progress bar, filling from the left in the main button's tint, so the window
// never changes its layout to show progress.
Item {
    id: divider

    // Fraction of the running download, or a negative value when none runs.
    property real progress: -1
    property color tint: "white"
    readonly property bool showingProgress: progress >= 0

    implicitHeight: 9 // the 1-point rule with 4 points of padding above and below

    Rectangle {
        objectName: "dividerLine"
        anchors.verticalCenter: parent.verticalCenter
        width: parent.width
        height: 1
        color: Qt.rgba(1, 1, 1, 0.16)
    }

    Rectangle {
        objectName: "dividerProgress"
        visible: divider.showingProgress
        anchors.verticalCenter: parent.verticalCenter
        x: 0
        width: Math.round(parent.width * Math.max(0, Math.min(1, divider.progress)))
        height: 3
        radius: 1.5
        color: divider.tint
    }
}
