<?php
$l = array_fill(0, 1000000, 0.0);
for ($i = 0.0; $i < 1000000; $i += 1) {
  $l[(int)$i] = $i * 2;
}
function f($v) { return sprintf('%.15f', $v); }
echo "n=", count($l), " first=", f($l[0]), " middle=", f($l[500000]), " last=", f($l[999999]), "\n";
