<?php
// Post-call tracker stand-in: logs each post and answers "OK id=<id>".
require __DIR__ . '/tracker_lib.php';
tracker_serve(function ($line, $n) {
    return tracker_answer($line);
});
