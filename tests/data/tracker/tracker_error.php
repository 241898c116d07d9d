<?php
// Refuses every request: logs "error <request>" and answers "ERROR".
require __DIR__ . '/tracker_lib.php';
tracker_serve(function ($line, $n) {
    tracker_log('error ' . $line);
    return 'ERROR';
});
