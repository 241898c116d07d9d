<?php
// Hangs on the first request it ever sees (a marker next to the log keeps
// count across restarts) and logs "hang <request>"; later processes answer.
require __DIR__ . '/tracker_lib.php';
tracker_serve(function ($line, $n) {
    $marker = tracker_log_path() . '.hung';
    if (!file_exists($marker)) {
        touch($marker);
        tracker_log('hang ' . $line);
        sleep(3600);
    }
    return tracker_answer($line);
});
