<?php
// Sign-in and sign-out. A sign-in is checked against the password file (cfgd-web-passwd) unless
// the client's address is in its back-off after failed ones; it then leads back to the page
// asked for (?next=, a local path only). The sign-out (from every page's navigation) ends the
// PHP session, so that its cookie no longer works.

declare(strict_types=1);
const CFGD_SIGNIN_PAGE = true;
require __DIR__ . '/../lib/app.php';

$next = local_path($_POST['next'] ?? $_GET['next'] ?? null) ?? 'index.php';
$client = signin_client((string) ($_SERVER['REMOTE_ADDR'] ?? ''));
$action = posted_action();  // null for a GET or a post without the right token
$user = $_POST['user'] ?? '';
$user = is_string($user) ? $user : '';

if ($action === 'signout') {
    session_start();
    $_SESSION = [];
    session_destroy();
    $cookie = session_get_cookie_params();
    setcookie(session_name(), '', ['expires' => 1] + array_intersect_key($cookie,
        array_flip(['path', 'domain', 'secure', 'httponly', 'samesite'])));
    header('Location: signin.php?out=1', true, 303);
    exit;
}
if ($action === 'signin') {
    $password = $_POST['password'] ?? '';
    $wait = signin_try($client, $next_wait, $count);
    if ($wait > 0) {
        http_response_code(429);
        header("Retry-After: $wait");
        banner('error', sprintf(TEXT['signin_wait'], $client, $wait));
    } elseif (is_string($password) && password_matches($user, $password)) {
        signin_succeeded($client);
        session_start();
        session_regenerate_id(true);  // a session id known before the sign-in is worth nothing
        $_SESSION = ['csrf' => bin2hex(random_bytes(32)), 'user' => $user, 'seen' => time()];
        session_write_close();
        header('Location: ' . $next, true, 303);
        exit;
    } else {
        http_response_code(403);
        signin_failed($client, $user, $count, $next_wait);
        banner('error', sprintf(TEXT['signin_wrong'], $next_wait));
    }
} elseif ($action === null && App::$user !== null && ($_SERVER['REQUEST_METHOD'] ?? 'GET') === 'GET') {
    header('Location: ' . $next, true, 303);  // signed in already
    exit;
}
if (App::$ended) {
    banner('info', sprintf(TEXT['signin_ended'], CFGD_SESSION_MINUTES));
} elseif (isset($_GET['post']) && $action === null) {
    banner('warn', TEXT['signin_post']);
} elseif (isset($_GET['out']) && $action === null) {
    banner('ok', TEXT['signed_out']);
}
?>
<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>Sign in – CAN gateway</title>
<link rel="stylesheet" href="style.css">
<link rel="icon" href="favicon.svg" type="image/svg+xml">
</head>
<body>
<header class="top">
  <div class="brand"><a href="index.php">CAN gateway</a></div>
</header>
<main>
<h1>Sign in</h1>
<div id="banners" aria-live="polite">
<?php foreach (App::$banners as $b) { ?>
  <p class="banner banner-<?= h($b['kind']) ?>"><?= h($b['text']) ?></p>
<?php } ?>
</div>
<section class="card">
  <form id="form-signin" method="post" action="signin.php" class="signin">
    <?= csrf_field() ?>
    <input type="hidden" name="next" value="<?= h($next) ?>">
    <label for="f-user">User</label>
    <input id="f-user" name="user" value="<?= h($user) ?>" autocomplete="username" autocapitalize="none" required>
    <label for="f-password">Password</label>
    <input id="f-password" name="password" type="password" autocomplete="current-password" required>
    <p class="buttons"><button type="submit" id="btn-signin" name="action" value="signin" class="primary">Sign in</button></p>
  </form>
</section>
</main>
</body>
</html>
