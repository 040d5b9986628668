<?php
// The database file is named by BENCH_SQLITE (bench/run.sh and
// bench/fastcgi.sh make it); cvml reaches the same file as the ODBC data
// source "cvmlbench".
$db = new PDO('sqlite:' . getenv('BENCH_SQLITE'));
$db->setAttribute(PDO::ATTR_ERRMODE, PDO::ERRMODE_EXCEPTION);
?><table>
<tr><th>id</th><th>name</th><th>city</th><th>qty</th><th>price</th></tr>
<?php
$n = 0;
foreach ($db->query('SELECT id, name, city, qty, price FROM items ORDER BY id') as $row) {
  echo '<tr><td>', $row['id'], '</td><td>', $row['name'], '</td><td>', $row['city'], '</td><td>', $row['qty'],
       '</td><td>', sprintf('%.15f', $row['price']), "</td></tr>\n";
  $n++;
}
?></table>
<p><?php echo $n; ?> rows</p>
