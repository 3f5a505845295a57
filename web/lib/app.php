<?php
// Bootstrap of the web front end's pages: configuration, PHP session with CSRF token, escaping,
// banners, error handling, and reads from cfgd in one session per page.
//
// Names the browser tests rely on (keep them stable):
//   every form      method post, hidden "csrf" (the session's token), hidden "action"
//                   (save | reset_stats | remove | upload | confirm | rollback)
//   settings form   id "form-settings"; fields named v[PARAM] after cfgctl's names
//                   (v[can1.bitrate], v[lan0.ipv4], v[route3.fpp], v[filter7.term], ...), with
//                   id "f-PARAM" where dots become dashes (f-can1-bitrate) and an error span
//                   id "err-PARAM" (err-can1-bitrate, empty unless the field is marked: the
//                   pages' words, cfgd's text in its small.field-error-detail; a marked field
//                   has class "invalid" and aria-invalid); text fields have maxlength (the
//                   names table's longest value); hidden "built": JSON of the device's values
//                   the fields were built from (a save that finds them changed is refused);
//                   a check box comes after a hidden v[PARAM]=0; a route's filters are check
//                   boxes v[routeN.filters][] (ids f-routeN-filters-M)
//   submit buttons  name "mode": value "trial" (id "btn-trial", "Save & apply") or "now"
//                   (id "btn-now", "Apply without rollback")
//   routes.php      ?route=N; statistics reset: form "form-reset", button "btn-reset-stats"
//   filters.php     ?filter=N: that filter's form, and form "form-remove" (hidden "filter",
//                   button "btn-remove"); the list's form "form-add" adds the filter that its
//                   hidden "filter" names (the first free one)
//   system.php      ?download=1 (cfgctl dump as an attachment, link "link-download");
//                   upload form "form-upload", file "config", buttons "btn-upload-trial"
//                   and "btn-upload-now" (name "mode" as above), cfgctl's lines in
//                   pre "upload-output"
//   banners         div "banners"; each p.banner with class banner-ok | banner-info |
//                   banner-warn | banner-error
//   pending trial   section "trial" (on every page while one is pending): seconds left in
//                   span "trial-countdown" (data-seconds), its changes in ul "trial-changes",
//                   where the device will be in p "trial-new-address" (link "trial-new-link"
//                   on a page not loaded there), form "form-trial" to trial.php with buttons
//                   "btn-keep" (action confirm, "Keep these settings"; not on the old
//                   address's page of a move) and "btn-rollback" (action rollback, "Roll back now")
//   header          identity in p "identity", user in span "user", navigation nav "nav" with
//                   the sign-out form "form-signout" (button "btn-signout")
//   signin.php      form "form-signin" (fields "user" and "password", ids f-user and
//                   f-password; hidden "next"), button "btn-signin" (action signin); ?next= the
//                   local path to return to
//   switched off    a page a GUI option switched off: p "switched-off", status 404
//   read-only values  index.php: tables "status-can" and "status-routes", td "state-canN",
//                   the values that refresh by themselves carry data-live="NAME" (can0.state,
//                   can0.real_bitrate, route1.state, route1.can_packets, ...),
//                   dd "sw-version", "gateway-version", "lan-address", "lan-mac"; can.php:
//                   span "state-canN", "sample-point-canN", "timing-canN" (register timing
//                   only); lan.php: "lan-mac"; routes.php: table "routes", links
//                   "route-link-N", dd "stat-COUNTER" (stat-can_packets, ...); filters.php:
//                   table "filters" with links "filter-link-N", p "filter-count"; system.php:
//                   "kl15"; trial.php: p "no-trial" when none is pending; app.js adds p
//                   "trial-expired" at zero
//   after a post   every post with the right token is answered with 303 to a GET of the same
//                   URL (query string included; trial.php's: trial.php?back=PAGE); what it
//                   did (banners, refusals beside fields, a refused form's input, cfgctl's
//                   lines) is a flash in the PHP session that the next GET of that URL shows
//                   once, so that reload and back send nothing again
// HTTP status: 303 after a post, 403 for a POST without the right token (nothing changed, no
// redirect), 503 when cfgd cannot be reached, 500 for an unexpected fault (logged); else 200.
// Without a sign-in: 303 to signin.php for a browser (Accept: text/html), else 401; signin.php
// answers a refused sign-in with 403, one during the back-off with 429.

declare(strict_types=1);

ini_set('display_errors', '0');
ini_set('log_errors', '1');
error_reporting(E_ALL);
// A warning is a fault like any other: the page shows a banner, the log gets the details.
set_error_handler(static function (int $severity, string $message, string $file, int $line): bool {
    if ((error_reporting() & $severity) === 0) {
        return false;  // silenced with @
    }
    throw new ErrorException($message, 0, $severity, $file, $line);
});
ob_start();  // so that a fault can replace a half-made page

require_once __DIR__ . '/settings.php';
require_once __DIR__ . '/layout.php';
require_once __DIR__ . '/form.php';
require_once __DIR__ . '/params.php';
require_once __DIR__ . '/signin.php';

const UPLOAD_LIMIT = 64 * 1024;       // bytes of an uploaded configuration text

// What a refused form leaves: cfgd aborts the session and stores nothing; a hardened cfgd also
// goes back to its file, a legacy one may keep routes and filters of the session in use.
const LEGACY_ABORT_NOTE = 'On a device whose cfgd has the legacy profile, routes and filters it set may stay in use until cfgd restarts.';

// Every text the pages share.
const TEXT = [
    'save_trial' => 'Save & apply',
    'save_now' => 'Apply without rollback',
    'keep' => 'Keep these settings',
    'rollback' => 'Roll back now',
    'unchanged' => 'Nothing changed: the form holds the device\'s values.',
    'applied' => 'Applied and stored on the device.',
    'trial_started' => 'Applied as a trial: it is rolled back when the time is up, unless it is kept (see below).',
    'refused' => 'The device refused a value (see the marked field); nothing of this form was stored. ' . LEGACY_ABORT_NOTE,
    'csrf' => 'This form has expired or did not come from this page: nothing was changed. Reload the page and try again.',
    'not_running' => 'The configuration daemon (cfgd) is not running, so nothing can be read or changed. Restart the device or start cfgd, then reload this page.',
    'busy' => 'Another client is changing the configuration right now. Wait a moment, then reload this page or send the form again.',
    'trial_pending' => 'A trial is pending (%d s left): keep it or roll it back first; nothing was changed.',
    'no_answer' => 'The configuration daemon did not answer in time (%s). Reload the page to try again.',
    'failed' => 'The configuration daemon could not take the request (%s). Reload the page to try again.',
    'too_long' => 'Too long: at most %d characters fit here, and this has %d (a letter such as é counts as two).',
    'not_saved_too_long' => 'Nothing was saved: a value is too long (see the marked field).',
    'not_saved_malformed' => 'Nothing was saved: a value is not one the field takes (see the marked field).',
    'changed_field' => 'Changed on the device since this page was loaded: now %s. Check this field, then save again.',
    'changed_since' => 'Nothing was saved: since this page was loaded, the device\'s values changed (%s), e.g. from another browser. The form now shows them, with your own changes kept: check them and save again.',
    'fault' => 'Something went wrong on the device; the details are in the web server\'s error log. Reload the page to try again.',
    'no_data' => 'The device\'s values could not be read.',
    'dhcp_address' => 'the address the DHCP server gives it',
    'keep_from_new' => 'Not kept: this trial moves the device to a new address, so keep it from a page loaded at that address (this shows that it works). It rolls back by itself if nobody does.',
    'switched_off' => 'The %s page is switched off. It can be switched on again on the System page, under "Pages the web front end shows".',
    'switched_off_post' => 'The %s page is switched off: nothing was changed.',
    'signin_needed' => 'Sign in first: this page is only for signed-in users.',
    'signin_post' => 'You were not signed in, so nothing was changed. Sign in, then send the form again.',
    'signin_ended' => 'You were signed out: the pages were not used for %d min. Sign in again.',
    'signin_wrong' => 'Wrong user name or password. The next try is possible in %d s.',
    'signin_wait' => 'Too many failed sign-ins from your address (%s): wait %d s, then try again.',
    'signed_out' => 'You are signed out.',
];

// The pages of the navigation, in order.
const PAGES = [
    'index.php' => 'Status',
    'can.php' => 'CAN',
    'lan.php' => 'LAN',
    'routes.php' => 'Routes',
    'filters.php' => 'Filters',
    'system.php' => 'System',
];

// The GUI option that switches a page of the navigation off. Status, System and the trial's
// page have none: System is where the pages are switched on again.
const PAGE_OPTIONS = [
    'can.php' => 'gui.show_can',
    'lan.php' => 'gui.show_lan',
    'routes.php' => 'gui.show_routing',
    'filters.php' => 'gui.show_filter',
];

// Read with every page, for the header and the navigation (gui.show_device: Status's Device card).
const IDENTITY = ['general.order_number', 'general.serial_number', 'host.name'];
const ALWAYS_READ = [...IDENTITY, ...PAGE_OPTIONS, 'gui.show_device'];

function h(?string $text): string
{
    return htmlspecialchars($text ?? '', ENT_QUOTES | ENT_SUBSTITUTE | ENT_HTML5, 'UTF-8');
}

/** Shared state of the request: banners, the identity read, the status code. */
final class App
{
    /** @var array<int, array{kind: string, text: string, link: ?array}> */
    public static array $banners = [];
    /** @var array<string, ?string> the names of ALWAYS_READ, as read_page() found them */
    public static array $identity = [];
    public static string $token = '';
    /** The signed-in user, null without a sign-in (or after it ended). */
    public static ?string $user = null;
    /** On the sign-in page: whether the last sign-in ended for idle time. */
    public static bool $ended = false;
    /** @var array|null the pending trial, as layout_start() found it */
    public static ?array $trial = null;
    /** Whether this request is a POST with the right token: it ends with redirect_after_post(). */
    public static bool $posted = false;
    /** @var array what the post before this GET left for it: banners, form, upload */
    public static array $flash = [];
    /** @var array what this post leaves for the GET after it, besides the banners */
    public static array $leave = [];
}

/** A message above the page; `$link` is [href, label]. */
function banner(string $kind, string $text, ?array $link = null): void
{
    App::$banners[] = ['kind' => $kind, 'text' => $text, 'link' => $link];
}

/** The words for cfgd being busy, not running, silent, or failing otherwise. */
function failure_text(Cfgd\Error $e): string
{
    return match (true) {
        $e instanceof Cfgd\Busy => TEXT['busy'],
        $e instanceof Cfgd\NotRunning => TEXT['not_running'],
        default => sprintf(TEXT[$e instanceof Cfgd\NoAnswer ? 'no_answer' : 'failed'], $e->getMessage()),
    };
}

/** The banner for a failure of cfgd or of the library, with the status code it calls for. */
function banner_for(Throwable $e): void
{
    if ($e instanceof Cfgd\TrialPending) {
        banner('warn', sprintf(TEXT['trial_pending'], $e->secondsLeft), ['trial.php', 'Show the trial']);
    } elseif ($e instanceof Cfgd\Busy) {
        banner('warn', failure_text($e));
    } elseif ($e instanceof Cfgd\Refused) {
        banner('error', 'The device refused the change, so nothing was stored. It said: ' . $e->getMessage());
    } elseif ($e instanceof Cfgd\NotRunning) {
        http_response_code(503);
        banner('error', failure_text($e));
    } elseif ($e instanceof Cfgd\Error && !($e instanceof Cfgd\UnknownName)) {
        error_log('cfgd web: ' . $e->getMessage());
        banner('error', failure_text($e));
    } else {
        error_log('cfgd web: ' . $e);
        http_response_code(500);
        banner('error', TEXT['fault']);
    }
}

/** The page's answer to a fault that escaped it: whatever was made is replaced. */
function fail_page(Throwable $e, string $page): void
{
    while (ob_get_level() > 1) {
        ob_end_clean();
    }
    ob_clean();
    banner_for($e);
    if (App::$posted && !headers_sent()) {
        redirect_after_post();  // a reload must not send the post again either
    }
    try {
        layout_start($page, PAGES[$page] ?? 'Error');
        layout_end();
    } catch (Throwable $again) {
        error_log('cfgd web: ' . $again);
        echo '<!DOCTYPE html><title>Error</title><p>', h(TEXT['fault']), '</p>';
    }
}

/** The URL a post is sent to and its GET shows: the page with its query string. */
function this_url(): string
{
    $query = $_SERVER['QUERY_STRING'] ?? '';
    return current_page() . (is_string($query) && $query !== '' ? '?' . $query : '');
}

// The PHP session carries the sign-in, the CSRF token and the flashes; it is closed at once so
// that slow requests (a trial takes a few seconds) do not hold the browser's other requests up.
// A GET takes the flash left for its URL, so that it is shown once.
function start_php_session(): void
{
    // PHP's session directory may be missing or read-only on the device: then one of ours,
    // which must be the server user's alone (in /tmp another user could have made it first,
    // and whoever writes session files can make a signed-in one).
    $dir = session_save_path();
    if ($dir === '' || !is_dir($dir) || !is_writable($dir)) {
        $dir = env_setting('CFGD_SESSION_DIR', sys_get_temp_dir() . '/cfgd-web-sessions');
        if (!is_dir($dir)) {
            mkdir($dir, 0700, true);
        }
        if (is_link($dir) || fileowner($dir) !== posix_geteuid() || (fileperms($dir) & 0077) !== 0) {
            throw new RuntimeException("the session directory $dir is not the server user's alone (mode 0700): remove it");
        }
        session_save_path($dir);
    }
    // Unknown session ids are never taken over; the cookie is per server port, as browsers
    // share cookies between a host's ports.
    ini_set('session.use_strict_mode', '1');
    ini_set('session.gc_maxlifetime', (string) (CFGD_SESSION_MINUTES * 60));
    session_name('cfgdweb' . preg_replace('/[^0-9]/', '', (string) ($_SERVER['SERVER_PORT'] ?? '')));
    session_set_cookie_params(['httponly' => true, 'samesite' => 'Strict', 'secure' => true]);
    // Only a cookie that names a session file is taken: one file for each request without a
    // session, or with a made-up id (strict mode starts a new session for it), would let any
    // client fill the directory (memory, in a device's /tmp) faster than PHP clears it. The
    // sign-in form then gets its token from a cookie of its own.
    $id = $_COOKIE[session_name()] ?? null;
    if (!is_string($id) || preg_match('/^[A-Za-z0-9,-]{1,256}$/', $id) !== 1
        || !is_file(session_save_path() . '/sess_' . $id)) {
        if (defined('CFGD_SIGNIN_PAGE')) {
            App::$token = signin_form_token();
        }
        return;
    }
    session_start();
    if (!is_string($_SESSION['csrf'] ?? null)) {
        $_SESSION['csrf'] = bin2hex(random_bytes(32));
    }
    App::$token = $_SESSION['csrf'];
    if (is_string($_SESSION['user'] ?? null)) {
        if (time() - (int) ($_SESSION['seen'] ?? 0) > CFGD_SESSION_MINUTES * 60) {
            unset($_SESSION['user']);
            $_SESSION['ended'] = true;  // for the sign-in page to say why
        } else {
            App::$user = $_SESSION['user'];
            // The Status page's own refreshes are no use of the pages: an open tab still ends.
            if (!defined('CFGD_POLL')) {
                $_SESSION['seen'] = time();
            }
        }
    }
    if (defined('CFGD_SIGNIN_PAGE')) {
        App::$ended = isset($_SESSION['ended']);
        unset($_SESSION['ended']);
    }
    if (($_SERVER['REQUEST_METHOD'] ?? 'GET') === 'GET' && is_array($_SESSION['flash'][this_url()] ?? null)) {
        App::$flash = $_SESSION['flash'][this_url()];
        unset($_SESSION['flash'][this_url()]);
        App::$banners = App::$flash['banners'] ?? [];
    }
    session_write_close();
}

/**
 * Ends a post: its result goes into the session as the flash of `$url` (default: the URL it was
 * sent to), and the browser is sent there with 303 See Other, so that it GETs that page.
 */
function redirect_after_post(?string $url = null): never
{
    $url ??= this_url();
    while (ob_get_level() > 0) {
        ob_end_clean();
    }
    session_start();
    $_SESSION['flash'][$url] = ['banners' => App::$banners] + App::$leave;
    session_write_close();
    header('Location: ' . $url, true, 303);
    exit;
}

/**
 * Lets only a signed-in user's request go on; every page and post calls it (the bootstrap below
 * does, for every page but signin.php). Otherwise a browser (Accept: text/html) is sent to the
 * sign-in, which leads back to the page asked for; other clients get 401. Nothing is changed.
 */
function require_signin(): void
{
    if (App::$user !== null) {
        return;
    }
    while (ob_get_level() > 0) {
        ob_end_clean();
    }
    $accept = $_SERVER['HTTP_ACCEPT'] ?? '';
    if (is_string($accept) && str_contains($accept, 'text/html')) {
        $query = ['next' => (string) ($_SERVER['REQUEST_URI'] ?? '')];
        if (($_SERVER['REQUEST_METHOD'] ?? 'GET') === 'POST') {
            $query['post'] = '1';
        }
        header('Location: signin.php?' . http_build_query($query), true, 303);
    } else {
        http_response_code(401);
        header('Content-Type: text/plain; charset=utf-8');
        echo TEXT['signin_needed'], "\n";
    }
    exit;
}

function csrf_field(): string
{
    return '<input type="hidden" name="csrf" value="' . h(App::$token) . '">';
}

/** The action of a POST with the right token; null for a GET, or a refused POST (403). */
function posted_action(): ?string
{
    if (($_SERVER['REQUEST_METHOD'] ?? 'GET') !== 'POST') {
        return null;
    }
    $sent = $_POST['csrf'] ?? null;
    if (!is_string($sent) || !hash_equals(App::$token, $sent)) {
        http_response_code(403);
        banner('error', TEXT['csrf']);
        return null;
    }
    App::$posted = true;
    $action = $_POST['action'] ?? '';
    return is_string($action) ? $action : '';
}

/** "trial" or "now", as the pressed button says. */
function posted_mode(): string
{
    return ($_POST['mode'] ?? '') === 'trial' ? 'trial' : 'now';
}

function new_trial(): Cfgd\Trial
{
    return new Cfgd\Trial(CFGD_LOCK_FILE, CFGD_CFGCTL, CFGD_TIMEOUT);
}

/**
 * Reads `$names` in an open session; a read that cfgd refuses (a filter that is not defined)
 * is null.
 * @return array<string, ?string>
 */
function read_names(Cfgd\Session $session, array $names): array
{
    $values = [];
    foreach ($names as $name) {
        try {
            $values[$name] = $session->read($name);
        } catch (Cfgd\Refused) {
            $values[$name] = null;
        }
    }
    return $values;
}

/**
 * Reads what a page shows in one session, with the header's identity: `$names`, then those
 * that `$more` returns for the values read so far. Null when cfgd cannot be reached (a banner
 * says why).
 * @return array<string, ?string>|null
 */
function read_page(array $names, ?callable $more = null): ?array
{
    $session = new_session();
    try {
        $session->start(0);
        $values = read_names($session, [...ALWAYS_READ, ...$names]);
        if ($more !== null) {
            $values += read_names($session, $more($values));
        }
        $session->finish();
    } catch (Cfgd\Error $e) {
        banner_for($e);
        return null;
    }
    App::$identity = array_intersect_key($values, array_flip(ALWAYS_READ));
    return $values;
}

function current_page(): string
{
    return basename($_SERVER['SCRIPT_NAME'] ?? '');
}

/**
 * Whether a GUI option (gui.show_*) leaves its part shown: only a "0" read switches it off,
 * so that a page whose values could not be read still says why.
 */
function gui_shows(?string $option): bool
{
    return $option === null || (App::$identity[$option] ?? null) !== '0';
}

function page_shown(string $page): bool
{
    return gui_shows(PAGE_OPTIONS[$page] ?? null);
}

/**
 * In a form's open session, before it writes: true, after saying so, when the current page is
 * switched off, so that a form sent to it changes nothing.
 */
function switched_off_in(Cfgd\Session $session): bool
{
    $option = PAGE_OPTIONS[current_page()] ?? null;
    if ($option === null || $session->read($option) !== '0') {
        return false;
    }
    banner('warn', sprintf(TEXT['switched_off_post'], PAGES[current_page()]));
    return true;
}

/**
 * A button's one write (a reset, a removal) in a session of its own, unless the page is
 * switched off: `$done` says it is written; a refusal is said by `$refused`, with the device's
 * reason, where the page knows better than the general text.
 */
function write_one(string $name, string $value, string $done, ?string $refused = null): void
{
    $session = new_session();
    try {
        $session->start(1);
        if (!switched_off_in($session)) {
            $session->write($name, $value);
            banner('ok', $done);
        }
        $session->finish();
    } catch (Cfgd\Refused $e) {
        $session->abort();  // a refused write leaves the session open
        $refused !== null ? banner('error', "$refused (The device said: " . $e->getMessage() . ')') : banner_for($e);
    } catch (Cfgd\Error $e) {
        banner_for($e);
    }
}

/**
 * Runs cfgctl with the lock file and `$arguments`, without a shell.
 * @return array{0: int, 1: string, 2: string} exit status, output, error output
 */
function run_cfgctl(array $arguments): array
{
    return Cfgd\run_program([CFGD_CFGCTL, '-l', CFGD_LOCK_FILE, '-t', (string) CFGD_TIMEOUT,
        ...$arguments]);
}

// A fault that escapes a page (or the bootstrap itself) replaces whatever the page made.
set_exception_handler(static fn (Throwable $e) => fail_page($e, current_page()));
start_php_session();
header('X-Content-Type-Options: nosniff');
header('X-Frame-Options: DENY');
header("Content-Security-Policy: default-src 'self'; frame-ancestors 'none'");
header('Cache-Control: no-store');
if (!defined('CFGD_SIGNIN_PAGE')) {
    require_signin();
}
