<html>
<head><title>Hello</title></head>
<body>
<h1>Hello, <?php echo $_GET['name']; ?>!</h1>
<?php if (1 + 1 == 2) { ?><p>Arithmetic works.</p>
<?php } ?></body>
</html>
