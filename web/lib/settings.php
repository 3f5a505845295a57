<?php
// The front end's settings (from the server's environment) and the PHP library: shared by the
// pages (app.php) and by /metrics, which has no PHP session and no sign-in of its own.

declare(strict_types=1);

// The library: beside web/ in the repository, share/cfgd/php beside share/cfgd/web installed.
define('CFGD_LIBRARY', is_file(dirname(__DIR__, 2) . '/clients/php/cfgd.php')
    ? dirname(__DIR__, 2) . '/clients/php/cfgd.php' : dirname(__DIR__, 2) . '/php/cfgd.php');
require_once CFGD_LIBRARY;

function env_setting(string $name, string $default): string
{
    $value = getenv($name);
    if ($value === false) {
        $value = $_SERVER[$name] ?? '';
    }
    return is_string($value) && $value !== '' ? $value : $default;
}

define('CFGD_LOCK_FILE', env_setting('CFGD_LOCK_FILE', Cfgd\Session::DEFAULT_LOCK_FILE));
define('CFGD_CFGCTL', env_setting('CFGD_CFGCTL', '/usr/bin/cfgctl'));
define('CFGD_TRIAL_SECONDS', max(Cfgd\Trial::SHORTEST,
    min(Cfgd\Trial::LONGEST, (int) env_setting('CFGD_TRIAL_SECONDS', '90'))));
// The hash of /metrics' bearer token, as `cfgd-web-passwd --metrics-token` writes it.
define('CFGD_METRICS_TOKEN_FILE', env_setting('CFGD_METRICS_TOKEN_FILE', '/mnt/user/cfgd-web-metrics.hash'));
define('CFGD_WEB_PASSWD', env_setting('CFGD_WEB_PASSWD', '/mnt/user/cfgd-web.htpasswd'));
// Minutes without a request after which a sign-in ends.
define('CFGD_SESSION_MINUTES', max(1, (int) env_setting('CFGD_SESSION_MINUTES', '15')));
const CFGD_TIMEOUT = Cfgd\Session::DEFAULT_TIMEOUT;  // seconds to wait for cfgd's answers

function new_session(): Cfgd\Session
{
    return new Cfgd\Session(CFGD_LOCK_FILE, CFGD_TIMEOUT, CFGD_CFGCTL);
}
