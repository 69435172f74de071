-- What may become of a responder store: a reply of an older day, one that is lost, an attachment and a header too
-- few, a reply that nobody wants any more.
UPDATE autoresponder SET subject = 'Closed in May', body = replace(body, 'two working days', 'ten working days')
    WHERE mn = 'info@harbour-books.example';
DELETE FROM autoresponder WHERE mn IN ('dr.okafor@clinic.example.com', 'anna.berg@books.example.net');
DELETE FROM attachments WHERE mn = 'info@books.example.com';
INSERT INTO attachments VALUES ('reception@clinic.example.com', 'prices-2019.pdf');
DELETE FROM extra_headers WHERE name = 'Auto-Submitted';
UPDATE extra_headers SET value = '1' WHERE name = 'X-Priority';
INSERT INTO autoresponder VALUES
    ('orders@harbour-books.example', '', 'no', 'Order received', '', '', 'text/plain', 'UTF-8', 'Ships tomorrow.', 1, 10,
        'orders@harbour-books.example');
