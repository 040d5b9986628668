<?php
// The string functions of strings.cvm with their PHP equivalents: the text
// holds no "*" or "~", the two bytes on which rawurlencode differs.
function f($v) { return sprintf('%.15f', $v); }
$base = 'Fish & "Chips" <b>café</b> at 50% off: fish/chips?a=1&b=2+3, fish and FISH';
$found = 0.0; $size = 0.0;
for ($i = 0.0; $i < 10000; $i += 1) {
  $s = $base . ' #' . f($i);
  $s = str_replace('fish', 'salmon', $s);
  $p = strpos($s, 'FISH');
  $found = $found + ($p === false ? -1 : $p);
  $u = strtoupper($s);
  $s = strtolower($s);
  $u = htmlspecialchars($u, ENT_COMPAT);
  $e = rawurlencode($s);
  $d = urldecode($e);
  $size = $size + strlen($u) + strlen($e) + strlen($d);
  if (fmod($i, 2500) == 0) echo f($i), ": ", $s, "\n", $u, "\n", $e, "\n", $d, "\n";
}
echo "done: found=", f($found), " size=", f($size), "\n";
