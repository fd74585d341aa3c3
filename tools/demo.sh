#!/usr/bin/env bash
# A local release of ZENTHO 0.2.0, end to end, in a few seconds: builds what is missing, packs
# the 0.2.0 stand-in game with zentho-release, serves it from a private nginx on 127.0.0.1, and
# opens the launcher pointed at it for an invite link. The launcher downloads, verifies, installs
# and starts the game, then quits; the server stops with it.
#
#   tools/demo.sh                 in a desktop session
#   xvfb-run -a tools/demo.sh     without one (the windows are drawn on a virtual display)
#
# Environment: ZENTHO_BUILD_DIR (default: build) is the build folder to use or make.
# Everything else lives in a fresh temporary folder, named at the end: a data folder of its own
# (so every run shows a real download, and the user's own launcher storage is never touched), the
# release and the server. Nothing outside it and the build folder is changed.
set -euo pipefail

source_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build_dir=${ZENTHO_BUILD_DIR:-$source_dir/build}
bundle=$build_dir/ZenthoLauncher.app
launcher=$bundle/Contents/MacOS/ZenthoLauncher
release_tool=$build_dir/tools/zentho-release
game_020=$build_dir/standin-0.2.0/zentho
nginx=/usr/sbin/nginx

if [ -t 1 ]; then
    say() { printf '\033[1mdemo:\033[0m %s\n' "$*"; }
else
    say() { printf 'demo: %s\n' "$*"; }
fi
fail() { printf 'demo: %s\n' "$*" >&2; exit 1; }

[ -x "$nginx" ] || fail "nginx is missing; run tools/install-deps.sh first"

# 1. Build what is missing (an up-to-date build takes a moment).
# Configuring first, every time, lets make know targets added since the folder was last
# configured; on a configured folder it takes a moment.
say "configuring $build_dir"
mkdir -p "$build_dir"
cmake -S "$source_dir" -B "$build_dir" >"$build_dir/demo-configure.log" 2>&1 ||
    { cat "$build_dir/demo-configure.log" >&2; fail "configuring failed"; }
say "building the launcher, zentho-release and the 0.2.0 stand-in game"
cmake --build "$build_dir" -j"$(nproc)" --target ZenthoLauncher zentho-release zentho-standin-0.2.0 \
    >"$build_dir/demo-build.log" 2>&1 || { tail -n 30 "$build_dir/demo-build.log" >&2; fail "the build failed"; }

work=$(mktemp -d "${TMPDIR:-/tmp}/zentho-demo.XXXXXX")
mkdir -p "$work/www/release" "$work/nginx/logs" "$work/game" "$work/data"
nginx_pid=
stop_server() {
    if [ -n "$nginx_pid" ] && kill -0 "$nginx_pid" 2>/dev/null; then
        kill "$nginx_pid" 2>/dev/null || true
        wait "$nginx_pid" 2>/dev/null || true
        say "release server stopped"
    fi
    nginx_pid=
}
trap stop_server EXIT
trap 'exit 130' INT TERM

# 2. A release server on a free loopback port, plain HTTP: the manifest's digest protects the
#    archive, and the manifest itself is read from a local file.
port_is_open() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }
for attempt in 1 2 3 4 5 6 7 8 9 10; do
    port=$((20000 + RANDOM % 20000))
    port_is_open "$port" && continue
    cat >"$work/nginx/nginx.conf" <<EOF
daemon off;
master_process off;
pid $work/nginx/nginx.pid;
error_log $work/nginx/logs/error.log;
events { worker_connections 64; }
http {
    access_log $work/nginx/logs/access.log;
    client_body_temp_path $work/nginx/body;
    proxy_temp_path $work/nginx/proxy;
    fastcgi_temp_path $work/nginx/fastcgi;
    uwsgi_temp_path $work/nginx/uwsgi;
    scgi_temp_path $work/nginx/scgi;
    types { application/json json; application/gzip gz; }
    default_type application/octet-stream;
    server {
        listen 127.0.0.1:$port;
        root $work/www;
    }
}
EOF
    "$nginx" -p "$work/nginx" -c "$work/nginx/nginx.conf" -e "$work/nginx/logs/error.log" &
    nginx_pid=$!
    for _ in $(seq 50); do
        port_is_open "$port" && break
        kill -0 "$nginx_pid" 2>/dev/null || break
        sleep 0.1
    done
    port_is_open "$port" && break
    stop_server
done
[ -n "$nginx_pid" ] || fail "nginx did not start: $(tail -n 3 "$work/nginx/logs/error.log" 2>/dev/null)"
say "release server on http://127.0.0.1:$port (nginx, pid $nginx_pid)"

# 3. Publish ZENTHO 0.2.0 the way a release engineer does, and check it as the launcher will.
cp "$game_020" "$work/game/zentho"
manifest=$("$release_tool" pack --platform macos-arm64 --version 0.2.0 --executable zentho \
    --url-base "http://127.0.0.1:$port/release" --out "$work/www/release" "$work/game")
"$release_tool" verify "$manifest" "$work/www/release/zentho-0.2.0-macos-arm64.tar.gz" >/dev/null
say "published $(basename "$manifest"):"
sed 's/^/      /' "$manifest"

# The launcher's own manifest names the running version, so it does not try to replace itself.
running_version=$("$launcher" --version)
printf '{"version":"%s","platform":"macos-launcher-arm64","url":"http://127.0.0.1:%s/release/none.tar.gz","sha256":"%064d","executable":"ZenthoLauncher.app"}\n' \
    "$running_version" "$port" 0 >"$work/launcher-manifest.json"

# 4. Open the launcher for an invite link, which presses its main button.
if [ -z "${DISPLAY:-}" ] && [ -z "${WAYLAND_DISPLAY:-}" ] && [ -z "${QT_QPA_PLATFORM:-}" ]; then
    say "no display: running offscreen (try: xvfb-run -a tools/demo.sh)"
    export QT_QPA_PLATFORM=offscreen
fi
invite="zentho://invite/demo-room?from=demo"
say "opening launcher $running_version for $invite"
status=0
XDG_DATA_HOME="$work/data" \
ZENTHO_UPDATE_MANIFEST="file://$manifest" \
ZENTHO_LAUNCHER_UPDATE_MANIFEST="file://$work/launcher-manifest.json" \
ZENTHO_STANDIN_RECORD="$work/game-started.txt" \
    timeout 120 "$launcher" "$invite" || status=$?
stop_server

# 5. What happened.
installed=$work/data/Zentho/launcher/versions/0.2.0
if [ "$status" -eq 0 ] && [ -x "$installed/zentho" ] && [ -f "$work/game-started.txt" ]; then
    say "the launcher downloaded, verified and installed ZENTHO 0.2.0 into"
    say "  $installed"
    say "and started it, then quit. The game was handed:"
    sed 's/^/      /' "$work/game-started.txt"
    game_pid=$(sed -n 's/^pid=//p' "$work/game-started.txt")
    if kill -0 "$game_pid" 2>/dev/null; then
        say "ZENTHO 0.2.0 is still running (pid $game_pid): close its window or run: kill $game_pid"
    fi
    say "demo files: $work"
    exit 0
fi
[ "$status" -eq 124 ] && say "the launcher did not finish within 120 s"
fail "the launcher exited with status $status without installing 0.2.0 (files: $work)"
