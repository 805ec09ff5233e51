#!/usr/bin/env bash
# The door display end to end in a real browser, in private namespaces: the
# service counting camsim's crowd (a 3DPC camera, restarted with each crowd),
# BusyBox httpd serving the installed display component in the layout of
# docs/display.md, and headless Chromium loading the page. The page's figure
# must equal the status file's, its state follow the crowd (green, amber,
# red), go grey while its server is down and within 6 s of the service
# stopping, and the browser's console must stay empty (a page with a script
# error shows that the check sees one). Screenshots of each state go to
# BUILD_DIR/display-screenshots.
# Usage: browser_test.sh SOURCE_DIR BUILD_DIR
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
if [ "${3:-}" != inside ]; then
    src=$1 build=$2
    # shellcheck source=tests/support/namespaces.sh
    . "$here/../support/namespaces.sh"
    # shellcheck source=tests/boot/boot-common.sh
    . "$here/../boot/boot-common.sh"
    require_namespaces
    for tool in chromium busybox; do
        command -v "$tool" >/dev/null || fail "$tool is not installed (scripts/setup-deps --tests installs it)"
    done
    # Outside the /tmp the sandbox covers.
    work=$(mktemp -d -p /var/tmp ppl-display.XXXXXX)
    trap 'rm -rf "$work"' EXIT
    DESTDIR=$work/stage cmake --install "$build" --prefix /usr --component display >/dev/null ||
        fail "cannot install the display component"
    layout=$(doc_block "BusyBox httpd layout" "$src/docs/display.md")
    [ -n "$layout" ] || fail "no BusyBox httpd layout in docs/display.md"
    sed -e "s|/usr/|$work/stage/usr/|g" -e 's|/www|/tmp/www|g' <<<"$layout" >"$work/layout.sh"
    doc_block "BusyBox httpd.conf" "$src/docs/display.md" >"$work/httpd.conf"
    mkdir -p "$build/display-screenshots"
    rm -f "$build/display-screenshots"/*.png
    "$build/tests/support/pplsandbox" "$0" "$src" "$build" inside "$work"
    exit
fi

work=$4 build=$PPL_BUILD
# Nothing started here outlives the test, whatever way it ends (a browser
# still waiting for the released image ends within a minute by itself).
trap 'kill $(jobs -p) 2>/dev/null; wait' EXIT
shots=$build/display-screenshots
page=http://127.0.0.1/occupancy.html
failures=0
pass() { echo "ok   $*"; }
fail() {
    echo "FAIL $*"
    failures=$((failures + 1))
}
now_ms() { date +%s%3N; }
# wait_until SECONDS COMMAND...: polls every 0.1 s.
wait_until() {
    local end=$(($(now_ms) + $1 * 1000))
    shift
    until "$@"; do
        [ "$(now_ms)" -lt "$end" ] || return 1
        sleep 0.1
    done
}
status_key() { sed -n "s/^$1 = //p" /tmp/PPLCounter.ini 2>/dev/null; }

# chrome NAME ARG...: headless Chromium with a new empty profile and no
# background connections; the DOM it dumps goes to NAME.dom, its log (with
# the page's console) to NAME.err.
chrome() {
    local name=$1
    shift
    chromium --headless --no-sandbox --disable-gpu --disable-quic --no-first-run \
        --disable-background-networking --disable-component-update --disable-sync \
        --user-data-dir="$(mktemp -d /tmp/chrome.XXXXXX)" --enable-logging=stderr --v=0 \
        "$@" >"$work/$name.dom" 2>"$work/$name.err"
}
# The console lines of pages (the browser's own pages, chrome://, log
# notes of their own).
console_of() { grep 'CONSOLE' "$work/$1.err" | grep -v 'source: chrome://'; }
console_empty() {
    local lines
    lines=$(console_of "$1")
    [ -z "$lines" ] || fail "$1: the browser's console: $lines"
}
dom_state() { sed -n 's/.*<body data-state="\([a-z]*\)".*/\1/p' "$work/$1.dom"; }
dom_text() { sed -n "s/.*id=\"$2\"[^>]*>\([^<]*\)<.*/\1/p" "$work/$1.dom"; }

# shows NAME STATE WORD [QUERY [SIZE]]: the page, loaded with QUERY, shows
# STATE and WORD and (unless grey) the status file's figures; screenshot
# NAME.png.
shows() {
    local name=$1 state=$2 word=$3 query=${4:-} size=${5:-1920,1080} got
    chrome "$name" --window-size="$size" --virtual-time-budget=2500 \
        --screenshot="$shots/$name.png" --dump-dom "$page$query"
    got="$(dom_state "$name") '$(dom_text "$name" word)' $(dom_text "$name" stayin) $(dom_text "$name" in) $(dom_text "$name" out)"
    local want="$state '$word' – – –"
    [ "$state" = grey ] ||
        want="$state '$word' $(status_key PPL.StayIn0.Count) $(status_key PPL.In0.Count) $(status_key PPL.Out0.Count)"
    if [ "$got" = "$want" ]; then pass "$name: $got"; else fail "$name: shows $got, not $want"; fi
    console_empty "$name"
}

# crowd IN OUT: the camera restarted with these totals; waits until the
# service has them and the camera connected again.
sim=''
crowd() {
    if [ -n "$sim" ]; then kill "$sim"; wait "$sim"; fi
    "$build/camsim" --tarn 8101 --rate 0 --start-in "$1" --start-out "$2" >>/tmp/camsim.log 2>&1 &
    sim=$!
    wait_until 15 counted "$(($1 - $2))" || fail "the service did not count a crowd of $1 in, $2 out"
}
counted() {
    [ "$(status_key PPL.StayIn0.Count)" = "$1" ] && [ "$(status_key PPL.In0.Status)" = connect ] &&
        [ "$(status_key PPL.Out0.Status)" = connect ]
}

# The page must not load anything from anywhere.
if grep -Eiq '(src|href)=|url\(|@import|https?://' "$work"/stage/usr/share/pplcounter/occupancy.html; then
    fail "the page refers to outside resources"
fi

# One 3DPC camera counting both ways, polled every second; over limit 10.
"$build/tests/support/pplsandbox" --config 8101 8102 SERV_PPL_TYPE=3DPCV2 SERV_PPL_OUT_0_CAM=0 \
    SERV_PPL_CAM_0_PASSWORD=admin SERV_PPL_SETTINGS_0_REPORT_INTERVAL=1 \
    SERV_PPL_STAYIN_0_OVER=10 SERV_PPL_STAYIN_0_UNDER=0 >/opt/user/ZV318/INIT/ZV318System.ini
"$build/pplcounter" >/tmp/svc.out 2>/tmp/svc.err &
svc=$!
sh -e "$work/layout.sh" || fail "the documented layout"
busybox httpd -f -p 127.0.0.1:80 -h /tmp/www -c "$work/httpd.conf" &
httpd=$!

crowd 5 2
shows display-green green "Come in"
crowd 10 2
shows display-amber amber "Come in"
# The address sets the threshold and the words, which stay text.
shows amber-90-words green "&lt;b&gt;Entrez&lt;/b&gt;" "?amber=90&in=%3Cb%3EEntrez%3C%2Fb%3E"
if grep -q '<b>' "$work/amber-90-words.dom"; then fail "a word from the address became markup"; fi
crowd 12 2
shows display-red red "Please wait"
shows display-red-phone red "Please wait" "" 360,740

# Live, in real time: a page beside a watcher that notes each change of
# its state (to a second server, which stays up), held open by an image
# that loads only when released.
mkdir -p /tmp/rig/cgi-bin
cat >/tmp/rig/cgi-bin/note <<'EOS'
#!/bin/sh
echo "$QUERY_STRING" >>/tmp/notes
printf 'Content-Type: text/plain\r\n\r\n'
EOS
cat >/tmp/rig/cgi-bin/hold <<'EOS'
#!/bin/sh
i=0
while [ ! -e /tmp/release ] && [ "$i" -lt 600 ]; do sleep 0.1; i=$((i + 1)); done
printf 'Content-Type: text/plain\r\n\r\n'
EOS
chmod 755 /tmp/rig/cgi-bin/*
busybox httpd -f -p 127.0.0.1:8081 -h /tmp/rig &
cat >/tmp/www/watch.html <<'EOS'
<!DOCTYPE html><html><body>
<iframe id="display" src="/occupancy.html" width="480" height="270"></iframe>
<img src="http://127.0.0.1:8081/cgi-bin/hold" alt="">
<script>
var last = "";
setInterval(function () {
  var page = document.getElementById("display").contentDocument;
  if (!page || !page.getElementById("stayin")) return;
  var now = page.body.getAttribute("data-state");
  if (now === last) return;
  last = now;
  fetch("http://127.0.0.1:8081/cgi-bin/note?" + Date.now() + "+" + now, { mode: "no-cors" });
}, 50);
</script></body></html>
EOS
: >/tmp/notes
# noted SINCE STATE: the page turned STATE at or after SINCE (ms); prints when.
noted() { awk -F+ -v since="$1" -v state="$2" '$1 >= since && $2 == state { print $1; exit }' /tmp/notes | grep .; }
# turns NAME STATE WITHIN_MS: after the event at $t, the page turns STATE
# within WITHIN_MS by the browser's clock.
turns() {
    local when
    if ! when=$(wait_until 10 noted "$t" "$2"); then
        fail "$1: the page did not turn $2"
    elif [ $((when - t)) -le "$3" ]; then
        pass "$1: $2 after $((when - t)) ms"
    else
        fail "$1: $2 only after $((when - t)) ms (at most $3)"
    fi
}
chrome watch --dump-dom http://127.0.0.1/watch.html &
browser=$!
t=$(now_ms)
turns "page loaded" red 5000
kill "$httpd"
wait "$httpd"
t=$(now_ms)
turns "its server stopped" grey 2000
busybox httpd -f -p 127.0.0.1:80 -h /tmp/www -c "$work/httpd.conf" &
httpd=$!
t=$(now_ms)
turns "its server back" red 2000
t=$(now_ms)
kill -TERM "$svc"
wait "$svc"
turns "the service stopped" grey 6000
touch /tmp/release
wait_until 10 eval '! kill -0 '"$browser"' 2>/dev/null' || fail "the browser did not end"
console_empty watch

shows display-grey grey "No data"

# The console check sees a script error.
sed 's/^  poll();$/  poll(); noSuchFunction();/' /tmp/www/occupancy.html >/tmp/www/broken.html
chrome broken --virtual-time-budget=1000 --dump-dom http://127.0.0.1/broken.html
if console_of broken | grep -q 'Uncaught ReferenceError: noSuchFunction'; then
    pass "the console check sees a script error"
else
    fail "the console check missed the script error of broken.html"
fi

if [ "$failures" -ne 0 ]; then
    echo "$failures failed"
    exit 1
fi
echo PASS
