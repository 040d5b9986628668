<?php
$sum = 0.0;
for ($i = 0.0; $i < 1000000; $i += 1) {
  if (fmod($i, 2) == 0) $sum = $sum + $i;
}
echo "sum=", sprintf('%.15f', $sum), "\n";
