<?php
$i = 0.0; $x = 1.0; $s = "abcdefghijklmnopqrstuvwxyz"; $h = array("total" => 0.0); $l = array(3 => 0.0);
function f($v) { return sprintf('%.15f', $v); }
while ($i < 20000) {
  $x = fmod($x * 2 + $i - 3, 1000);
  $y = $x / 8 + 0.5;
  $l[3] = $x + $i;
  $h["total"] = $h["total"] + $l[3];
  $t = substr($s, 3, 6);
  if (fmod($i, 4000) == 0) echo f($i), ": x=", f($x), " y=", f($y), " l=", f($l[3]), " total=", f($h["total"]), " t=", $t, "\n";
  $i = $i + 1;
}
echo "done: i=", f($i), " x=", f($x), " total=", f($h["total"]), "\n";
